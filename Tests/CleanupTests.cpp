#include "Support/RecordingLogSender.h"
#include "Support/World.h"

#include <filesystem>

#include <gmock/gmock.h>

using namespace corvane;
using platform::URL;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr const char* bootout =
    "(\n    USERID=$( id -u )\nlaunchctl bootout gui/${USERID}/\"com.corvane.EmergencyUpdateService\"\n)";

/// The agent with its own files in place, and the main application unless a test takes it away.
class Cleanup : public World {
 protected:
  Cleanup() {
    installs("1.79.3");
    rehearsal::writeFile(plist, "plist");
    rehearsal::writeFile(agent / "Contents/MacOS/EmergencyUpdateService", "program");
  }

  const fs::path plist = mac.home() / "Library/LaunchAgents/com.corvane.EmergencyUpdateService.plist";
  const fs::path agent = mac.home() / "Agent.app";
  const fs::path app = mac.sysroot() / "Applications/Orvik.app";
};

TEST_F(Cleanup, RemovesTheAgentAtTheSecondMissInARow) {
  launch();
  advance(60);
  EXPECT_THAT(counts(), ElementsAre("0/2", "0/2"));
  workspace.registered.clear();
  advance(60);
  installs("1.79.3");
  advance(60);
  fs::remove_all(app);  // registered still, but nothing is there
  advance(60);
  EXPECT_THAT(counts(), ElementsAre("1/2", "0/2", "1/2"));
  EXPECT_EQ(processExit.status, std::nullopt);
  advance(60);
  EXPECT_EQ(processExit.status, 0);
  EXPECT_THAT(recordsBesidesCounts(),
              ElementsAre("Main app was detected missing, uninstalling emergency update service",
                          "Removing configuration plist", "Removing bundle installation", "Booting out",
                          "Stopping own proces"));
  EXPECT_FALSE(fs::exists(plist));
  EXPECT_FALSE(fs::exists(agent));
  EXPECT_THAT(childProcesses.started, ElementsAre(ElementsAre("/bin/bash", "-c", bootout)));
}

TEST_F(Cleanup, StopEndsItAndAnotherStartCountsAnew) {
  workspace.registered.clear();
  const auto checker = std::make_shared<EmergencyUpdateServiceMainAppUninstalledChecker>(
      EmergencyUpdateServiceMainAppUninstalledChecker::Collaborators{
          .logger = EmergencyUpdateServiceLogger("C"),
          .orvikAppStateProvider = std::make_shared<OrvikApp::StateProviderImpl>(
              EmergencyUpdateServiceLogger("P"), fileManager_, workspace, searchPaths_, processInfo_),
          .installationMutex = std::make_shared<OrvikApp::InstallationMutex>(),
          .runLoop = runLoop,
          .backgroundTasks = tasks},
      60.0, 2);
  struct Delegate final : EmergencyUpdateServiceMainAppUninstalledChecker::Delegate {
    int told = 0;
    void didDetectAppUninstalled() override { ++told; }
  };
  auto delegate = std::make_shared<Delegate>();
  checker->setDelegate(delegate);
  const fakes::RecordingLogSender log;
  const std::string count = std::string("debug C: ") + missingCount;
  checker->start();
  settle();
  checker->stop();
  advance(120);
  checker->start();
  settle();
  EXPECT_EQ(delegate->told, 0);
  advance(120);
  EXPECT_EQ(delegate->told, 1);
  delegate.reset();
  advance(120);
  EXPECT_THAT(log.texts(), ElementsAre(count + "1/2", "debug C: Emergency update service main app checker stopped",
                                       count + "1/2", count + "2/2", count + "1/2", count + "2/2", count + "1/2"));
  EXPECT_EQ(log.records()[1].file + " " + log.records()[1].function,
            "Cleanup/EmergencyUpdateServiceMainAppUninstalledChecker stop()");
}

class Uninstaller : public Cleanup {
 protected:
  std::vector<std::string> uninstall() { return uninstall(URL::fileURL(plist.string())); }
  std::vector<std::string> uninstall(const std::optional<URL>& plistURL) {
    const fakes::RecordingLogSender log;
    EmergencyUpdateServiceUninstaller(EmergencyUpdateServiceLogger("U"),
                                      {.bundleIdentifier = identifier,
                                       .configPlistURL = plistURL,
                                       .installationURL = URL::fileURL(agent.string(), URL::PathKind::directory)},
                                      fileManager_, std::make_shared<CommandExecutorImpl>(childProcesses, processInfo_),
                                      processExit)
        .uninstall();
    EXPECT_EQ(std::exchange(processExit.status, std::nullopt), 0) << "whatever failed";
    std::vector<std::string> texts;
    for (const auto& record : log.records()) {
      EXPECT_EQ(record.file, "Cleanup/EmergencyUpdateServiceUninstaller");
      EXPECT_EQ(record.message, record.redacted);
      texts.push_back(record.text() + " " + record.function);
    }
    return texts;
  }
};

TEST_F(Uninstaller, IsSafeToRepeat) {
  uninstall();
  EXPECT_THAT(uninstall(),
              ElementsAre("debug U: Removing configuration plist remove(_:tag:)",
                          "info U: Could not remove configuration plist because it already didn't exist remove(_:tag:)",
                          "debug U: Removing bundle installation remove(_:tag:)",
                          "info U: Could not remove bundle installation because it already didn't exist remove(_:tag:)",
                          "debug U: Booting out bootOut()", "debug U: Stopping own proces terminateOwnProcess()"));
}

TEST_F(Uninstaller, GoesOnWithoutAPlaceForTheConfiguration) {
  EXPECT_THAT(uninstall(std::nullopt),
              ElementsAre("error U: Could not remove configuration plist because URL is nil remove(_:tag:)",
                          "debug U: Removing bundle installation remove(_:tag:)", "debug U: Booting out bootOut()",
                          "debug U: Stopping own proces terminateOwnProcess()"));
  EXPECT_FALSE(fs::exists(agent));
  EXPECT_TRUE(fs::exists(plist));
}

TEST_F(Uninstaller, SaysHowTheBootoutFailed) {
  const auto saidOf = [this](std::int32_t status, const std::optional<std::string>& output,
                             const std::optional<std::string>& errorOutput) {
    childProcesses.result = {.status = status, .standardOutput = output, .standardError = errorOutput};
    std::vector<std::string> texts = uninstall();
    texts.erase(texts.begin(), std::ranges::find(texts, "debug U: Booting out bootOut()") + 1);
    texts.pop_back();
    return texts;
  };
  EXPECT_THAT(saidOf(0, "noise", "noise"), IsEmpty());
  EXPECT_THAT(saidOf(3, "noise", "noise"), IsEmpty()) << "it was not loaded";
  EXPECT_THAT(saidOf(5, {}, {}),
              ElementsAre("error U: Bootout process finished with error status: 5 bootOut()",
                          "debug U: Bootout process failure standard output: no standard output bootOut()",
                          "debug U: Bootout process failure standard error: no standard error bootOut()"));
  EXPECT_THAT(saidOf(127, "out", "err"),
              testing::IsSupersetOf({"debug U: Bootout process failure standard output: out bootOut()",
                                     "debug U: Bootout process failure standard error: err bootOut()"}));
}

}  // namespace
