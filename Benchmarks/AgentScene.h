#pragma once

#include "Benchmarks/Measure.h"
#include "Rehearsal/Scene.h"

#include <array>
#include <atomic>
#include <span>

namespace benchmarks {

inline constexpr const char* listHost = CORVANE_DOWNLOAD_HOST;
inline constexpr const char* logHost = CORVANE_LOG_HOST;
inline constexpr const char* imageURL = "https://images.corvane.example/Orvik.dmg";

/// What a check without anything to do writes, and one with an install that succeeds.
inline constexpr std::array quietCheck{"Validation succeeded with no updates"};
inline constexpr std::array completeInstall{"Installation completed", "Cleaning up"};

/// A list that asks nothing, and one that asks to install the image where one of these versions is.
inline constexpr const char* emptyList = R"({"version":"1","updates":[]})";
std::string installList(const std::string& versions);

/// After so long an agent that has nothing to do has closed its connections and ended the threads behind them.
inline constexpr std::chrono::seconds settlingTime{20};

/// The installed agent on a stand-in Mac, with servers for its list and its records that count.
class AgentScene {
 public:
  AgentScene(const Plan& plan, std::string list);

  [[nodiscard]] rehearsal::Scene& scene() { return scene_; }
  [[nodiscard]] std::filesystem::path temporaryDirectory() const { return scene_.mac().temporaryDirectory(); }
  void setList(std::string list) { list_ = std::move(list); }
  /// Serves a file for the image's URL.
  void serveImage(const std::filesystem::path& file);

  /// The command line by which curl asks the same servers.
  [[nodiscard]] std::vector<std::string> curl(const std::string& url, const std::filesystem::path& file) const;

  /// Starts the agent, waits for a record and ends the agent.
  void play(const std::string& lastRecord);
  /// Seconds from one record of the agent last started to another behind it. Throws rehearsal::Failure without them.
  [[nodiscard]] double secondsBetween(const std::string& begin, const std::string& end) const;

  /// Starts the hurried agent (HurriedAgent.cpp) instead of the agent.
  void hurry();
  /// Makes it check the list so many times, each of which writes these records and ends with the last.
  void check(int times, std::span<const char* const> records);
  /// Waits until nothing is under way any more.
  void settle() const;

  [[nodiscard]] std::size_t listRequests() const { return listRequests_; }
  [[nodiscard]] std::size_t records() const { return records_; }
  [[nodiscard]] std::chrono::steady_clock::time_point lastListRequest() const { return lastListRequest_.load(); }

 private:
  Plan plan_;
  rehearsal::Transcript transcript_;
  std::string list_;
  std::atomic<std::size_t> listRequests_ = 0;
  std::atomic<std::size_t> records_ = 0;
  std::atomic<std::chrono::steady_clock::time_point> lastListRequest_;
  rehearsal::Scene scene_;
};

}  // namespace benchmarks
