#pragma once

#include "Benchmarks/Measure.h"
#include "Rehearsal/Scene.h"

#include <atomic>
#include <memory>

namespace benchmarks {

/// The installed agent on a stand-in Mac, with a server for its list and one for its records.
class AgentScene {
 public:
  AgentScene(const Plan& plan, std::string list);

  [[nodiscard]] rehearsal::Scene& scene() { return *scene_; }
  [[nodiscard]] std::filesystem::path temporaryDirectory() const { return scene_->mac().temporaryDirectory(); }
  [[nodiscard]] std::size_t listRequests() const { return listRequests_; }
  [[nodiscard]] std::size_t records() const { return records_; }
  /// When the last list request came.
  [[nodiscard]] std::chrono::steady_clock::time_point lastListRequest() const { return lastListRequest_.load(); }
  void setList(std::string list) { list_ = std::move(list); }

  /// Serves a file for every path of the image host.
  void serveImage(const std::filesystem::path& file);
  /// Where the image host's server really is: what makes curl ask it for its image, into `file`.
  [[nodiscard]] std::vector<std::string> curl(const std::string& url, const std::filesystem::path& file) const;

  /// Starts the agent, waits for a record and ends the agent.
  void play(const std::string& lastRecord);
  /// Seconds between two records, each the last with its message.
  [[nodiscard]] double secondsBetween(const std::string& begin, const std::string& end) const;

 private:
  rehearsal::Transcript transcript_;
  std::string list_;
  std::atomic<std::size_t> listRequests_ = 0;
  std::atomic<std::size_t> records_ = 0;
  std::atomic<std::chrono::steady_clock::time_point> lastListRequest_{};
  std::unique_ptr<rehearsal::Scene> scene_;
};

constexpr const char* listHost = "download.corvane.example";
constexpr const char* logHost = "log.corvane.example";
constexpr const char* imageHost = "images.corvane.example";
constexpr const char* imageURL = "https://images.corvane.example/Orvik.dmg";

/// A list that asks nothing, and one that asks an application of these versions to be installed anew.
inline constexpr const char* emptyList = R"({"version":"1","updates":[]})";
std::string installList(const std::string& versions);

}  // namespace benchmarks
