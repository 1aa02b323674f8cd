#include "Benchmarks/AgentScene.h"

#include "Platform/URL.h"

#include <csignal>
#include <optional>
#include <sstream>
#include <thread>

#include <fmt/format.h>

namespace benchmarks {
namespace {

/// Seconds of the day, from "2026-11-22 19:24:42.123456+0000".
double timeOfDay(const std::string& timestamp) {
  return (3600 * std::stod(timestamp.substr(11, 2))) + (60 * std::stod(timestamp.substr(14, 2))) +
         std::stod(timestamp.substr(17, 9));
}

}  // namespace

std::string installList(const std::string& versions) {
  return fmt::format(R"({{"version":"1","updates":[{{"date":"2026-11-02","appVersions":["{}"],)"
                     R"("actions":[{{"install":{{"url":"{}"}}}}]}}]}})",
                     versions, imageURL);
}

AgentScene::AgentScene(const Plan& plan, std::string list)
    : plan_(plan), list_(std::move(list)), scene_({.prefix = plan.prefix}, {}, transcript_) {
  scene_.serve(listHost, [this](const auto&) {
    lastListRequest_ = std::chrono::steady_clock::now();
    ++listRequests_;
    return rehearsal::HTTPResponse{.body = list_};
  });
  scene_.serve(logHost, [this](const auto&) {
    ++records_;
    return rehearsal::HTTPResponse{};
  });
}

void AgentScene::serveImage(const std::filesystem::path& file) {
  scene_.serve(platform::URL::parse(imageURL)->host(),
               [file](const auto&) { return rehearsal::HTTPResponse{.file = file}; });
}

std::vector<std::string> AgentScene::curl(const std::string& url, const std::filesystem::path& file) const {
  const auto sysroot = scene_.mac().sysroot();
  std::vector<std::string> words{"curl", "-sS", "--fail", "--cacert", sysroot / "etc/ssl/cert.pem", "-o", file, url};
  std::istringstream connections(rehearsal::readFile(sysroot / "etc/connect-to"));
  for (std::string line; std::getline(connections, line);) words.insert(words.end(), {"--connect-to", line});
  return words;
}

void AgentScene::play(const std::string& lastRecord) {
  scene_.startAgent();
  scene_.reach({lastRecord});
  scene_.quitAgent();
}

double AgentScene::secondsBetween(const std::string& begin, const std::string& end) const {
  rehearsal::LogFollower log(scene_.mac().systemLog());
  std::optional<double> first;
  while (const auto entry = log.next(std::chrono::steady_clock::now())) {
    if (entry->processIdentifier != scene_.agentProcessIdentifier()) continue;
    if (entry->message == begin) first = timeOfDay(entry->timestamp);
    if (!first || entry->message != end) continue;
    constexpr double day = 86400;
    const double last = timeOfDay(entry->timestamp);
    return last < *first ? last + day - *first : last - *first;
  }
  throw rehearsal::Failure(fmt::format("the agent did not write \"{}\" and then \"{}\"", begin, end));
}

void AgentScene::hurry() {
  std::filesystem::copy_file(plan_.hurriedAgent, scene_.agentExecutable(),
                             std::filesystem::copy_options::overwrite_existing);
  scene_.startAgent();
  scene_.reach({"Validation succeeded with no updates"});
}

void AgentScene::check(int times, std::span<const char* const> records) {
  sigqueue(scene_.agentProcessIdentifier(), SIGUSR1, {.sival_int = times});
  for (int i = 0; i < times; ++i) {
    for (const char* record : records) scene_.reach({record});
  }
}

void AgentScene::settle() const {
  std::this_thread::sleep_for(plan_.isShrunk ? std::chrono::seconds(1) : settlingTime);
}

}  // namespace benchmarks
