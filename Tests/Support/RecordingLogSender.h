#pragma once

#include "Logging/EmergencyUpdateServiceLogger.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace fakes {

/// A record as a sender sees it, kept.
struct KeptRecord {
  std::string name;
  corvane::LogLevel level;
  std::string message;  // the full rendering
  std::string redacted;
  std::optional<nlohmann::ordered_json> extra;
  std::string file;
  unsigned line;
  std::string function;

  /// "error EmergencyUpdateListParser: Failed to …"
  [[nodiscard]] std::string text() const {
    static constexpr const char* names[] = {"trace", "debug", "info", "warn", "error"};
    return std::string(names[static_cast<int>(level)]) + " " + name + ": " + message;
  }
  /// The same with the place: "… @Folder/File function(_:)".
  [[nodiscard]] std::string textAndPlace() const { return text() + " @" + file + " " + function; }
};

/// Keeps every record that is logged while it lives, instead of any other sender.
class RecordingLogSender {
 public:
  RecordingLogSender() : before_(corvane::EmergencyUpdateServiceLogger::setSharedSender(kept_)) {}
  RecordingLogSender(const RecordingLogSender&) = delete;
  RecordingLogSender& operator=(const RecordingLogSender&) = delete;
  ~RecordingLogSender() { corvane::EmergencyUpdateServiceLogger::setSharedSender(before_); }

  [[nodiscard]] const std::vector<KeptRecord>& records() const { return kept_->records; }
  [[nodiscard]] std::vector<std::string> texts() const {
    std::vector<std::string> texts;
    for (const KeptRecord& record : records()) texts.push_back(record.text());
    return texts;
  }
  [[nodiscard]] std::vector<std::string> textsAndPlaces() const {
    std::vector<std::string> texts;
    for (const KeptRecord& record : records()) texts.push_back(record.textAndPlace());
    return texts;
  }

 private:
  struct Kept final : corvane::EmergencyUpdateServiceLogSender {
    void setAgentID(const std::string& /*agentID*/) override {}
    void send(const corvane::LogRecord& record) override {
      std::optional<nlohmann::ordered_json> extra;
      if (record.extra.isPresent()) extra = record.extra.encoded();
      records.push_back({std::string(record.name), record.level, record.message.fullRendering(),
                         record.message.description(), extra, std::string(record.file), record.line,
                         std::string(record.function)});
    }
    std::vector<KeptRecord> records;
  };

  std::shared_ptr<Kept> kept_ = std::make_shared<Kept>();
  std::shared_ptr<corvane::EmergencyUpdateServiceLogSender> before_;
};

}  // namespace fakes
