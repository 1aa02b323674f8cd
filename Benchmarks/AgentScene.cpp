#include "Benchmarks/AgentScene.h"

#include <fmt/format.h>

namespace benchmarks {
namespace {

/// Seconds of the day, from "2026-11-22 19:24:42.123456+0000".
double timeOfDay(const std::string& timestamp) {
  return 3600 * std::stod(timestamp.substr(11, 2)) + 60 * std::stod(timestamp.substr(14, 2)) +
         std::stod(timestamp.substr(17, 9));
}

}  // namespace

std::string installList(const std::string& versions) {
  return fmt::format(R"({{"version":"1","updates":[{{"date":"2026-11-02","appVersions":["{}"],)"
                     R"("actions":[{{"install":{{"url":"{}"}}}}]}}]}})",
                     versions, imageURL);
}

AgentScene::AgentScene(const Plan& plan, std::string list)
    : list_(std::move(list)),
      scene_(std::make_unique<rehearsal::Scene>(rehearsal::Stage{.prefix = plan.prefix}, rehearsal::Setting{},
                                                transcript_)) {
  scene_->serve(listHost, [this](const rehearsal::HTTPRequest&) -> rehearsal::HTTPResponse {
    lastListRequest_ = std::chrono::steady_clock::now();
    ++listRequests_;
    return {.body = list_};
  });
  scene_->serve(logHost, [this](const rehearsal::HTTPRequest&) -> rehearsal::HTTPResponse {
    ++records_;
    return {};
  });
}

void AgentScene::serveImage(const std::filesystem::path& file) {
  scene_->serve(imageHost, [file](const rehearsal::HTTPRequest&) -> rehearsal::HTTPResponse { return {.file = file}; });
}

std::vector<std::string> AgentScene::curl(const std::string& url, const std::filesystem::path& file) const {
  const auto sysroot = scene_->mac().sysroot();
  std::vector<std::string> words{"curl", "-sS", "--fail", "--cacert", sysroot / "etc/ssl/cert.pem", "-o", file, url};
  std::istringstream connections(rehearsal::readFile(sysroot / "etc/connect-to"));
  for (std::string line; std::getline(connections, line);) words.insert(words.end(), {"--connect-to", line});
  return words;
}

void AgentScene::play(const std::string& lastRecord) {
  scene_->startAgent();
  scene_->reach({lastRecord});
  scene_->quitAgent();
}

double AgentScene::secondsBetween(const std::string& begin, const std::string& end) const {
  rehearsal::LogFollower log(scene_->mac().systemLog());
  double first = 0;
  double last = 0;
  while (const auto entry = log.next(std::chrono::steady_clock::now())) {
    if (entry->message.starts_with(begin)) first = timeOfDay(entry->timestamp);
    if (entry->message.starts_with(end)) last = timeOfDay(entry->timestamp);
  }
  constexpr double day = 86400;
  return last < first ? last + day - first : last - first;
}

}  // namespace benchmarks
