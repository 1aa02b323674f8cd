#include "Support/RecordingLogSender.h"
#include "Support/World.h"

#include <filesystem>
#include <thread>

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

  /// The "n/2" of the checks since the last call.
  std::vector<std::string> counts() {
    std::vector<std::string> counts;
    for (const std::string& message : records()) {
      if (message.starts_with(missingCount)) counts.push_back(message.substr(std::string_view(missingCount).size()));
    }
    return counts;
  }
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

TEST_F(Cleanup, AReplacementOfTheInstalledCopyIsNoUninstallation) {
  serves(R"({"version":"1","updates":[{"date":"","appVersions":["1"],
             "actions":[{"install":{"url":"https://images.example/Orvik.dmg"}}]}]})");
  downloads.answer = [this](const URL&) {
    rehearsal::writeFile(mac.temporaryDirectory() / "image.tmp", "image");
    return fakes::ScriptedURLSessions::Answer{.location =
                                                  URL::fileURL((mac.temporaryDirectory() / "image.tmp").string())};
  };
  childProcesses.behaviour = [this](const std::vector<std::string>& words) {
    if (words[0] != "/usr/bin/hdiutil" || words[1] != "attach") return 0;
    rehearsal::writeFile(mac.sysroot().string() + words.at(4) + "/Orvik.app/Contents/Info.plist", "new");
    return 0;
  };
  fileManager_.atCopy = [this](const URL& to) {
    if (to.path() != "/Applications/Orvik.app") return;
    EXPECT_FALSE(fs::exists(app));
    std::thread([this] { advance(10 * 60); }).join();  // a slow disk; the checks have a thread of their own
  };
  launch();
  EXPECT_THAT(counts(), IsEmpty()) << "no check can tell anything meanwhile";
  advance(60);
  EXPECT_THAT(counts(), ElementsAre("0/2"));
  EXPECT_EQ(processExit.status, std::nullopt);
}

struct Outcome {
  std::int32_t status;
  std::optional<std::string> output;
  std::optional<std::string> errorOutput;
  std::vector<std::string> records;
};

/// Answers every command alike.
class Executor final : public CommandExecutor {
 public:
  explicit Executor(const Outcome& outcome) : outcome_(outcome) {}
  CommandExecutionResult execute(CaptureOutput captureOutput, const std::string& /*launchPath*/,
                                 const std::vector<std::string>& /*arguments*/) override {
    EXPECT_EQ(captureOutput, CaptureOutput::yes);
    return {.status = outcome_.status, .output = outcome_.output, .errorOutput = outcome_.errorOutput};
  }

 private:
  const Outcome& outcome_;
};

class Uninstaller : public Cleanup {
 protected:
  std::vector<std::string> uninstall(const Outcome& outcome = {}) {
    return uninstall(outcome, URL::fileURL(plist.string()));
  }
  std::vector<std::string> uninstall(const Outcome& outcome, const std::optional<URL>& plistURL) {
    const fakes::RecordingLogSender log;
    EmergencyUpdateServiceUninstaller(EmergencyUpdateServiceLogger("U"),
                                      {.bundleIdentifier = identifier,
                                       .configPlistURL = plistURL,
                                       .installationURL = URL::fileURL(agent.string(), URL::PathKind::directory)},
                                      fileManager_, std::make_shared<Executor>(outcome), processExit)
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

TEST_F(Uninstaller, TakesEveryStepAndIsSafeToRepeat) {
  EXPECT_THAT(uninstall(),
              ElementsAre("debug U: Removing configuration plist remove(_:tag:)",
                          "debug U: Removing bundle installation remove(_:tag:)", "debug U: Booting out bootOut()",
                          "debug U: Stopping own proces terminateOwnProcess()"));
  EXPECT_THAT(uninstall({.status = 3}),
              ElementsAre("debug U: Removing configuration plist remove(_:tag:)",
                          "info U: Could not remove configuration plist because it already didn't exist remove(_:tag:)",
                          "debug U: Removing bundle installation remove(_:tag:)",
                          "info U: Could not remove bundle installation because it already didn't exist remove(_:tag:)",
                          "debug U: Booting out bootOut()", "debug U: Stopping own proces terminateOwnProcess()"));
}

TEST_F(Uninstaller, RemovesLinksAndNotWhatTheyLeadTo) {
  const fs::path elsewhere = mac.home() / "elsewhere";
  rehearsal::writeFile(elsewhere / "precious", "data");
  fs::create_directory_symlink(elsewhere, agent / "Contents/link");
  fs::remove(plist);
  fs::create_directory_symlink(elsewhere, plist);
  uninstall();
  EXPECT_FALSE(fs::exists(agent));
  EXPECT_FALSE(fs::exists(fs::symlink_status(plist)));
  EXPECT_TRUE(fs::exists(elsewhere / "precious"));
}

TEST_F(Uninstaller, GoesOnWhateverCannotBeRemoved) {
  EXPECT_THAT(uninstall({}, std::nullopt),
              ElementsAre("error U: Could not remove configuration plist because URL is nil remove(_:tag:)",
                          "debug U: Removing bundle installation remove(_:tag:)", "debug U: Booting out bootOut()",
                          "debug U: Stopping own proces terminateOwnProcess()"));
  EXPECT_FALSE(fs::exists(agent));
  EXPECT_TRUE(fs::exists(plist));
  EXPECT_THAT(uninstall({}, URL::fileURL((plist / "below a file").string())),
              testing::Contains("error U: Could not remove configuration plist, error: {Domain=NSCocoaErrorDomain, "
                                "Code=512, UnderlyingError={Domain=NSPOSIXErrorDomain, Code=20}} remove(_:tag:)"));
}

TEST_F(Uninstaller, SaysHowTheBootoutFailed) {
  const std::vector<Outcome> rows = {
      {.status = 0, .output = "noise", .errorOutput = "noise", .records = {}},
      {.status = 3, .output = "noise", .errorOutput = "noise", .records = {}},
      {.status = 5,
       .output = std::nullopt,
       .errorOutput = std::nullopt,
       .records = {"error U: Bootout process finished with error status: 5 bootOut()",
                   "debug U: Bootout process failure standard output: no standard output bootOut()",
                   "debug U: Bootout process failure standard error: no standard error bootOut()"}},
      {.status = 127,
       .output = "out\n",
       .errorOutput = "err\n",
       .records = {"error U: Bootout process finished with error status: 127 bootOut()",
                   "debug U: Bootout process failure standard output: out\n bootOut()",
                   "debug U: Bootout process failure standard error: err\n bootOut()"}},
  };
  for (const Outcome& row : rows) {
    std::vector<std::string> texts = uninstall(row);
    texts.erase(texts.begin(), std::ranges::find(texts, "debug U: Booting out bootOut()") + 1);
    texts.pop_back();
    EXPECT_EQ(texts, row.records) << row.status;
  }
}

}  // namespace
