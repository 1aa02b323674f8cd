#pragma once

#include "Logging/EmergencyUpdateServiceLogExtra.h"
#include "Logging/EmergencyUpdateServiceLogMessage.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

/// Severity, rising.
enum class LogLevel : std::uint8_t { trace, debug, info, warn, error };

/// "TRACE", "DEBUG", "INFO", "WARN", "ERROR".
std::string_view rawValue(LogLevel level);
/// The level with just this raw value.
std::optional<LogLevel> logLevel(std::string_view rawValue);

/// The deployment that a remote record belongs to.
enum class LogEnvironment : std::uint8_t { debug, prod };

/// "debug", "prod".
std::string_view rawValue(LogEnvironment environment);

/// One record on its way to the senders. Name, file and function are literals, which a sender may keep; message and
/// extra value are borrowed for the duration of the call.
struct LogRecord {
  std::string_view name;  // the logger's
  LogLevel level;
  const EmergencyUpdateServiceLogMessage& message;
  EmergencyUpdateServiceLogExtra extra;
  std::string_view file;  // below the source root, without extension: "Installer/EmergencyUpdateInstaller"
  std::uint32_t line;
  std::string_view function;  // "install(from:initiallyInstalledBundleVersion:)"
};

/// A destination of records. Any thread may call it, several at once; it neither throws nor makes its caller wait for
/// the network.
class EmergencyUpdateServiceLogSender {
 public:
  virtual ~EmergencyUpdateServiceLogSender() = default;
  virtual void setAgentID(const std::string& agentID) = 0;
  virtual void send(const LogRecord& record) = 0;
  /// The lowest level of which it keeps records, always the same: what lies below need not be sent to it.
  [[nodiscard]] virtual LogLevel minLogLevel() const { return LogLevel::trace; }
};

/// Drops everything: what the process starts with.
class EmergencyUpdateServiceNullLogSender final : public EmergencyUpdateServiceLogSender {
 public:
  void setAgentID(const std::string& /*agentID*/) override {}
  void send(const LogRecord& /*record*/) override {}
};

/// Hands every call on to each of its senders, in order.
class EmergencyUpdateServiceCompositeLogSender final : public EmergencyUpdateServiceLogSender {
 public:
  explicit EmergencyUpdateServiceCompositeLogSender(
      std::vector<std::shared_ptr<EmergencyUpdateServiceLogSender>> loggers)
      : loggers_(std::move(loggers)) {}

  void setAgentID(const std::string& agentID) override {
    for (const auto& logger : loggers_) logger->setAgentID(agentID);
  }
  void send(const LogRecord& record) override {
    for (const auto& logger : loggers_) logger->send(record);
  }
  [[nodiscard]] LogLevel minLogLevel() const override {
    LogLevel lowest = LogLevel::error;
    for (const auto& logger : loggers_) lowest = std::min(lowest, logger->minLogLevel());
    return lowest;
  }

 private:
  const std::vector<std::shared_ptr<EmergencyUpdateServiceLogSender>> loggers_;
};

}  // namespace corvane
