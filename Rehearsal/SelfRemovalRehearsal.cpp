#include "Rehearsal/Rehearsals.h"

#include <array>

#include <fmt/format.h>
#include <unistd.h>

namespace rehearsal {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* label = "com.corvane.EmergencyUpdateService";
/// The time between two checks, real, and how far from it the second may be.
constexpr auto checkInterval = 60s;
constexpr auto tolerance = 2s;

}  // namespace

void rehearseSelfRemoval(const Stage& stage, Transcript& transcript) {
  Scene scene(stage, {}, transcript);
  scene.serve(CORVANE_DOWNLOAD_HOST,
              [](const HTTPRequest&) { return HTTPResponse{.body = R"({"version":"1","updates":[]})"}; });
  scene.serveCollector(CORVANE_LOG_HOST);
  const fs::path launchAgents = scene.mac().home() / "Library/LaunchAgents";
  const fs::path plist = launchAgents / (std::string(label) + ".plist");
  const fs::path job = scene.mac().temporaryDirectory() / "launchd" / plist.filename();
  const fs::path bundle = scene.agentBundle();
  // Neighbours that are none of the agent's business.
  const std::array neighbours{launchAgents / "com.example.Other.plist",
                              bundle.parent_path() / "Other.app/Contents/Info.plist"};
  for (const fs::path& neighbour : neighbours) writeFile(neighbour, "");
  scene.runTool("/bin/launchctl", {"bootstrap", fmt::format("gui/{}", getuid()), plist.string()});
  if (!fs::exists(job)) throw Failure("the agent's job is not loaded");

  fs::remove_all(scene.orvik());
  transcript.heading("The user has removed Orvik");
  scene.startAgent();
  scene.reach({"Emergency update service, times main app missing: 1/2"});
  const auto firstMiss = Clock::now();
  scene.reach({"Emergency update service, times main app missing: 2/2"}, checkInterval + Scene::usualLimit);
  const auto waited = Clock::now() - firstMiss;
  for (const char* record :
       {"Main app was detected missing, uninstalling emergency update service", "Removing configuration plist",
        "Removing bundle installation", "Booting out", "Stopping own proces"}) {
    scene.reach({record});
  }
  scene.awaitEndOfAgent();
  transcript.fact("removed",
                  fmt::format("{:.2f} s after the first miss", std::chrono::duration<double>(waited).count()));
  if (std::chrono::abs(waited - checkInterval) > tolerance) throw Failure("that was not the time to do it");
  for (const fs::path& removed : {plist, bundle, job}) {
    if (fs::exists(removed)) throw Failure(fmt::format("{} is still there", removed.filename().string()));
  }
  for (const fs::path& neighbour : neighbours) {
    if (!fs::exists(neighbour)) throw Failure(fmt::format("{} is gone too", neighbour.string()));
  }
  transcript.heading("Passed: launch agent, bundle and job are gone, and nothing else is.");
}

}  // namespace rehearsal
