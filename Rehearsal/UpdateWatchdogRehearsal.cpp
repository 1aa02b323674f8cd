#include "Rehearsal/Rehearsals.h"

#include <algorithm>
#include <memory>

#include <fmt/format.h>

namespace rehearsal {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* report = "App was not launched after update installation";
/// How long the agent waits for the application, in real time, and how far from it the report may be.
constexpr auto observationTimeout = 120s;
constexpr auto tolerance = 2s;

std::unique_ptr<Scene> macWithRunningOrvik(const Stage& stage, Transcript& transcript) {
  auto scene = std::make_unique<Scene>(stage, Setting{}, transcript);
  scene->serve(CORVANE_DOWNLOAD_HOST,
               [](const HTTPRequest&) { return HTTPResponse{.body = R"({"version":"1","updates":[]})"}; });
  scene->serveCollector(CORVANE_LOG_HOST);
  scene->openOrvik();
  scene->showRunningOrvik("Before");
  scene->startAgent();
  scene->reach({"Validation succeeded with no updates"});
  return scene;
}

/// What the application's own updater does up to the moment at which the application has quit for it.
Clock::time_point quitForUpdate(Scene& scene, Transcript& transcript) {
  transcript.heading("Orvik updates itself");
  scene.post("com.corvane.ProjectOrvik.updateServiceWillInstallUpdate");
  scene.quitOrvik();
  return Clock::now();
}

}  // namespace

void rehearseUpdateWatchdog(const Stage& stage, Transcript& transcript) {
  const auto good = macWithRunningOrvik(stage, transcript);
  quitForUpdate(*good, transcript);
  std::filesystem::remove_all(good->orvik());
  StandInMac::installApplication(stage.prefix / "Orvik.app", good->orvik().parent_path(), "1.80.0");
  good->openOrvik();
  good->post("com.corvane.ProjectOrvik.updateServiceUpdateCompleted");
  good->showRunningOrvik("It came back");

  const auto bad = macWithRunningOrvik(stage, transcript);
  const auto quit = quitForUpdate(*bad, transcript);
  transcript.heading(fmt::format("It does not come back; {} seconds of real time pass", observationTimeout.count()));
  const LogEntry reported = bad->reach({report}, observationTimeout + Scene::usualLimit);
  const auto waited = Clock::now() - quit;
  transcript.fact("reported",
                  fmt::format("{:.2f} s after Orvik had quit", std::chrono::duration<double>(waited).count()));
  if (std::chrono::abs(waited - observationTimeout) > tolerance) throw Failure("that was not the time to report it");
  if (reported.messageType != "Fault") throw Failure("the report is no error's record");
  bad->requireCollected(report);
  bad->quitAgent();

  transcript.heading("Meanwhile, on the Mac where Orvik came back");
  const auto last = good->quitAgent();
  if (std::ranges::count(last, "UpdateWatchdog", &LogEntry::category) > 0) {
    throw Failure("the watchdog reported an application that came back");
  }
  good->quitOrvik();
  transcript.heading("Passed: the self-update that did not come back was reported, the other was not.");
}

}  // namespace rehearsal
