#include "Installer/EmergencyUpdateInstaller.h"
#include "Support/RecordingLogSender.h"
#include "Support/Saboteur.h"
#include "Support/World.h"

#include <filesystem>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>

using namespace corvane;
using platform::NSError;
using platform::URL;
using testing::ElementsAre;
namespace fs = std::filesystem;

namespace {

constexpr const char* list = R"({"version":"1","updates":[{"date":"","appVersions":["1"],
    "actions":[{"install":{"url":"https://images.example/Orvik%201.80.dmg"}}]}]})";

const NSError offline(platform::NSURLErrorDomain, -1009);

/// An install by the whole agent, with a network, tools and signatures that do as told and real files.
struct Install : World {
  using World::fileManager_;

  Install() {
    installs("1.79.3");
    serves(list);
    downloads.answer = [this](const URL&) { return fakes::ScriptedURLSessions::Answer{.location = sessionFile()}; };
    childProcesses.behaviour = [this](const std::vector<std::string>& words) {
      if (words[0] == "/usr/bin/hdiutil" && words[1] == "attach") return attach(words.at(4));
      if (words[0] == "/usr/bin/hdiutil") fs::remove_all(mac.sysroot().string() + words.at(2));
      return 0;
    };
  }

  URL sessionFile() const {
    const fs::path file = mac.temporaryDirectory() / "CFNetworkDownload_X.tmp";
    rehearsal::writeFile(file, "image");
    return URL::fileURL(file.string());
  }

  /// The image's contents appear at the mount point.
  int attach(const std::string& mountPoint) const {
    if (attachStatus != 0) return attachStatus;
    const fs::path volume = mac.sysroot().string() + mountPoint;
    rehearsal::writeFile(volume / "README", "not an application");
    if (volumeHasApp) rehearsal::writeFile(volume / "Orvik.APP/Contents/Info.plist", "new");
    return 0;
  }

  /// The records after "Install action triggered".
  std::vector<std::string> install() {
    launch();
    std::vector<std::string> all = recordsBesidesCounts();
    all.erase(all.begin(), std::ranges::find(all, "Install action triggered") + 1);
    return all;
  }
  std::string installedInfoPlist() const {
    return rehearsal::readFile(mac.sysroot() / "Applications/Orvik.app/Contents/Info.plist");
  }
  std::shared_ptr<fakes::FakeRunningApplication> runs(int pid) {
    auto app = std::make_shared<fakes::FakeRunningApplication>(std::string(OrvikApp::bundleIdentifier), pid);
    workspace.running.push_back(app);
    return app;
  }

  bool volumeHasApp = true;
  int attachStatus = 0;
};

TEST_F(Install, ReplacesTheApplicationStageByStage) {
  EXPECT_THAT(install(), ElementsAre("Checking ability to replace app files", "Downloading", "Download attempt 0/3",
                                     "Initial package verification", "Unarchiving", "Performing pre-install actions",
                                     "Terminating app process(es)", "Replacing app files at final destination",
                                     "Final verification initiallyInstalledBundleVersion=1.79.3", "Skipping app launch",
                                     "Installation completed", "Cleaning up"));
  EXPECT_EQ(installedInfoPlist(), "new");
  EXPECT_THAT(downloads.requested, ElementsAre("https://images.example/Orvik%201.80.dmg"));
  EXPECT_EQ(downloads.configuration.timeoutIntervalForRequest, 300);
  EXPECT_TRUE(downloads.configuration.waitsForConnectivity);

  ASSERT_THAT(codeSecurity.checked, testing::SizeIs(2));
  const std::string image = codeSecurity.checked[0];
  EXPECT_THAT(image,
              testing::MatchesRegex(mac.temporaryDirectory().string() + "/[0-9A-F-]{36}/CFNetworkDownload_X.tmp"));
  EXPECT_EQ(codeSecurity.checked[1], "/Applications/Orvik.app");
  ASSERT_THAT(childProcesses.started, testing::SizeIs(4));
  const std::string mountPoint = childProcesses.started[0].at(4);
  EXPECT_THAT(mountPoint, testing::MatchesRegex("/Volumes/[0-9A-F-]{36}"));
  const std::string app =
      mac.temporaryDirectory().string() + mountPoint.substr(std::string("/Volumes").size()) + "/Orvik.APP";
  EXPECT_THAT(childProcesses.started,
              ElementsAre(ElementsAre("/usr/bin/hdiutil", "attach", image, "-mountpoint", mountPoint, "-noverify",
                                      "-nobrowse", "-noautoopen"),
                          ElementsAre("/usr/bin/hdiutil", "detach", mountPoint, "-force"),
                          ElementsAre("/usr/bin/xattr", "-d", "-r", "com.apple.quarantine", app),
                          ElementsAre("/usr/bin/touch", app)));
  EXPECT_TRUE(fs::exists(image)) << "the image is left to the temporary directory";
  EXPECT_FALSE(fs::exists(app));
  EXPECT_TRUE(fs::exists(fs::path(app).parent_path() / "README")) << "of the copy only the application is removed";
  EXPECT_FALSE(fs::exists(mac.home() / "Library/Preferences/com.corvane.ProjectOrvik.plist")) << "none ran";
}

TEST_F(Install, AsksTheRunningApplicationToQuitAndRelaunchesIt) {
  const auto first = runs(501);
  const auto second = runs(502);
  const auto gone = runs(-1);
  serviceManagement.jobs = platform::PropertyList::Array{
      platform::PropertyList::Dictionary{{"Label", "com.corvane.ProjectOrvik.LoginHelper"}, {"OnDemand", true}}};
  first->atTerminate = [this] {
    EXPECT_EQ(userDefaults_.suite(OrvikApp::bundleIdentifier)->object("wasTerminatedNormally"),
              platform::PropertyList(true));
  };
  EXPECT_THAT(install(), testing::Contains("Launching app: [\"appPreviouslyRunning\", \"launchAtStartupEnabled\"]"));
  EXPECT_TRUE(first->wasAskedToQuit && second->wasAskedToQuit && gone->wasAskedToQuit);
  ASSERT_THAT(childProcesses.started, testing::SizeIs(6));
  EXPECT_THAT(childProcesses.started[4],
              ElementsAre("/bin/bash", "-c",
                          "(\n    while /bin/kill -0 501 >&/dev/null; do\n    /bin/sleep 0.1;\ndone;\n"
                          "while /bin/kill -0 502 >&/dev/null; do\n    /bin/sleep 0.1;\ndone;\n\n)"));
  EXPECT_THAT(childProcesses.started[5],
              ElementsAre("/bin/bash", "-c",
                          "(\n    for attempt in {1..100}; do\n    /usr/bin/open '/Applications/Orvik.app' --args "
                          "launchSourceEmergencyUpdateService && break;\n    /bin/sleep 0.1;\ndone;\n)"));
}

/// How far an install got with the application.
enum class Touched { nothing, running, files };

void expectStop(Touched touched, const std::vector<std::string>& lastRecords,
                const std::function<void(Install&)>& sabotage) {
  SCOPED_TRACE(lastRecords.back());
  Install at;
  const auto app = at.runs(501);
  sabotage(at);
  const std::vector<std::string> all = at.install();
  ASSERT_GE(all.size(), lastRecords.size());
  EXPECT_EQ(std::vector(all.end() - static_cast<std::ptrdiff_t>(lastRecords.size()), all.end()), lastRecords);
  EXPECT_EQ(at.installedInfoPlist() == "new", touched == Touched::files);
  EXPECT_EQ(app->wasAskedToQuit, touched != Touched::nothing);
  for (const auto& words : at.childProcesses.started)
    EXPECT_THAT(words.back(), testing::Not(testing::HasSubstr("/usr/bin/open")));
  EXPECT_TRUE(fs::is_empty(at.mac.sysroot() / "Volumes")) << "still mounted";
}

TEST(InstallStops, AtTheFirstStageThatFails) {
  using enum Touched;
  const platform::SecCodeValidity invalid{.status = -67050, .error = NSError(platform::NSOSStatusErrorDomain, -67050)};
  const std::string said = "App verification failed, status=-67050, error={Domain=NSOSStatusErrorDomain, Code=-67050} ";
  expectStop(nothing,
             {"Could not retrieve orvik application URL when checking if app files can be replaced",
              "Installer stopped, aborting install early because replacing app files is not possible"},
             [](Install& at) {
               at.workspace.registered.clear();
               at.serves(std::string(list).replace(std::string(list).find("\"1\"]"), 3, "\"\""));
             });
  expectStop(nothing,
             {"App download failed: {Domain=NSURLErrorDomain, Code=-1009}", "Installer stopped, download failed"},
             [](Install& at) {
               at.downloads.answer = [](const URL&) { return fakes::ScriptedURLSessions::Answer{.error = offline}; };
             });
  expectStop(nothing, {said + "(InitialVerification)", "Installer stopped, initial verification failed"},
             [&](Install& at) { at.codeSecurity.failures[0] = invalid; });
  expectStop(nothing,
             {"Unarchiving", "Unarchive failed, couldn't mount DMG, command status: 1",
              "Installer stopped, unarchiving failed"},
             [](Install& at) { at.attachStatus = 1; });
  expectStop(nothing, {"Unarchiving", "Installer stopped, unarchiving failed"},
             [](Install& at) { at.volumeHasApp = false; });
  expectStop(
      running,
      {"Could not retrieve orvik application URL", "Installer stopped, replacing app files failed", "Cleaning up"},
      [](Install& at) {
        at.childProcesses.behaviour = [&at, before = at.childProcesses.behaviour](const auto& words) {
          if (words[0] == "/usr/bin/touch") at.workspace.registered.clear();
          return before(words);
        };
      });
  expectStop(files, {said + "(FinalVerification)", "Installer stopped, final verification failed", "Cleaning up"},
             [&](Install& at) { at.codeSecurity.failures[1] = invalid; });
}

TEST(InstallStops, TrulyWhateverCallOnFilesFails) {
  fakes::failEachCall(1, [](fakes::Saboteur& saboteur) {
    Install at;
    const auto unhindered = [&](auto what) {
      return [&saboteur, what](const auto& about) {
        saboteur.rests = true;
        auto result = what(about);
        saboteur.rests = false;
        return result;
      };
    };
    at.downloads.answer = unhindered(at.downloads.answer);
    at.childProcesses.behaviour = unhindered(at.childProcesses.behaviour);
    saboteur.watch([&] { at.launch(); }, fakes::Saboteur::Lookups::spared);
    const std::vector<std::string> all = at.records();
    const auto has = [&](const char* record) { return std::ranges::find(all, record) != all.end(); };
    const bool hasCompleted = has("Installation completed");
    const auto stops =
        std::ranges::count_if(all, [](const auto& text) { return text.starts_with("Installer stopped"); });
    EXPECT_EQ(stops, has("Install action triggered") && !hasCompleted ? 1 : 0) << saboteur.failed;
    EXPECT_TRUE(!hasCompleted || at.installedInfoPlist() == "new") << saboteur.failed;
    for (const std::string& text : all) {
      if (!text.contains("NSPOSIXErrorDomain")) continue;
      EXPECT_THAT(text, testing::HasSubstr(fmt::format("NSPOSIXErrorDomain, Code={}}}", saboteur.error)))
          << saboteur.failed;
    }
  });
}

TEST(InstallStops, WithTheRecordOfTheCallOnFilesThatFailed) {
  const auto isInstalled = [](const URL& url) { return url.path() == "/Applications/Orvik.app"; };
  const auto isElsewhere = [isInstalled](const URL& url) { return !isInstalled(url); };
  const std::string error = "{Domain=NSCocoaErrorDomain, Code=512}";
  expectStop(Touched::nothing,
             {"Unarchive failed, couldn't copy to temporary folder: " + error, "Installer stopped, unarchiving failed"},
             [&](Install& at) { at.fileManager_.copyFails = isElsewhere; });
  expectStop(Touched::nothing,
             {"Unarchive failed, couldn't get contentsOfDirectory for retrieving app name: " + error,
              "Installer stopped, unarchiving failed"},
             [&](Install& at) { at.fileManager_.listingFails = isElsewhere; });
  expectStop(Touched::files,
             {"Replacing app files failed: " + error, "Installer stopped, replacing app files failed", "Cleaning up"},
             [&](Install& at) { at.fileManager_.copyFails = isInstalled; });
  Install at;
  at.fileManager_.removalFails = [](const URL&) { return true; };
  EXPECT_THAT(at.install(),
              testing::IsSupersetOf({"Unusual state, continuing despite app file removal failure: " + error,
                                     std::string("Installation completed"), std::string("Cleaning up"),
                                     "Cleanup failed removing itmes " + error}));
}

TEST_F(Install, AFailedDetachIsLoggedAndMadeUpForAtCleanup) {
  int detaches = 0;
  childProcesses.behaviour = [&, before = childProcesses.behaviour](const std::vector<std::string>& words) {
    if (words[1] == "detach" && ++detaches == 1) return 16;
    return before(words);
  };
  EXPECT_THAT(install(), testing::Contains("Detach command execution failed with status 16"));
  EXPECT_EQ(detaches, 2);
  EXPECT_THAT(childProcesses.started.back(), ElementsAre("/usr/bin/hdiutil", "detach", testing::_, "-force"));
}

TEST_F(Install, FailingPreparationsAreLoggedAndPassedOver) {
  rehearsal::writeFile(mac.sysroot() / "usr/bin/gktool", "");
  childProcesses.behaviour = [before = childProcesses.behaviour](const std::vector<std::string>& words) {
    return words[0] == "/usr/bin/hdiutil" ? before(words) : 1;
  };
  EXPECT_THAT(install(),
              testing::IsSupersetOf({"Remove quarantine command execution failed with status 1",
                                     "touch command execution failed with status 1",
                                     "gktool scan command execution failed with status 1", "Installation completed"}));
  mac.setOperatingSystemVersion("14.3.9");
  childProcesses.started.clear();
  advance(4 * hours);
  for (const auto& words : childProcesses.started) EXPECT_NE(words[0], "/usr/bin/gktool") << "too old a system";
}

TEST_F(Install, DownloadAttemptsEndAsTheSessionSaid) {
  std::vector<fakes::ScriptedURLSessions::Answer> answers = {{.location = std::nullopt, .error = std::nullopt},
                                                             {.location = sessionFile(), .error = offline},
                                                             {.location = sessionFile()}};
  downloads.answer = [&](const URL&) {
    sessionFile();
    return answers[downloads.requested.size() - 1];
  };
  const auto all = install();
  EXPECT_THAT(std::vector(all.begin() + 2, all.begin() + 7),
              ElementsAre("Download attempt 0/3", "Download attempt 1/3",
                          "App download failed: {Domain=NSURLErrorDomain, Code=-1009}", "Download attempt 2/3",
                          "Initial package verification"));
  EXPECT_EQ(all[all.size() - 2], "Installation completed");
  int moved = 0;
  for (const auto& entry : fs::recursive_directory_iterator(mac.temporaryDirectory())) {
    if (entry.path().filename() == "CFNetworkDownload_X.tmp") ++moved;
  }
  EXPECT_EQ(moved, 2) << "the file that came with an error stays where it was moved";
}

TEST_F(Install, AFileThatCannotBeMovedFailsTheAttempt) {
  downloads.answer = [this](const URL&) {
    return fakes::ScriptedURLSessions::Answer{.location = URL::fileURL((mac.home() / "no such file").string())};
  };
  EXPECT_THAT(install(), testing::Contains(
                             "App download failed, couldn't copy to temporary folder: "
                             "{Domain=NSCocoaErrorDomain, Code=4, UnderlyingError={Domain=NSPOSIXErrorDomain, Code=2}}")
                             .Times(3));
}

TEST_F(Install, TheChecksForTheApplicationWaitForItsReplacement) {
  fileManager_.atCopy = [this](const URL& to) {
    if (to.path() != "/Applications/Orvik.app") return;
    EXPECT_FALSE(fs::exists(mac.sysroot() / "Applications/Orvik.app"));
    std::thread([this] { advance(10 * 60); }).join();  // a slow disk; the checks have a thread of their own
  };
  launch();
  EXPECT_THAT(counts(), testing::AllOf(testing::SizeIs(testing::Ge(10)), testing::Each("0/2")))
      << "no check can tell anything meanwhile";
  EXPECT_EQ(processExit.status, std::nullopt);
}

TEST(AppVerifier, BuildsTheRequirementAndSaysWhatFailed) {
  using Verifier = EmergencyUpdateAppVerifier;
  EXPECT_EQ(Verifier::requirementText(std::nullopt), Verifier::requirementText(""));
  EXPECT_EQ(Verifier::requirementText("1.2.3"),
            "    anchor apple generic\n    and certificate 1[field.1.2.840.113635.100.6.2.6]\n"
            "    and certificate leaf[field.1.2.840.113635.100.6.1.13]\n"
            "    and certificate leaf[subject.OU] = \"K4TQ9Z7M2P\"    and info [CFBundleVersion] >= \"1.2.3\"");
  fakes::FakeCodeSecurity security;
  security.missing = "/missing";
  const Verifier verifier(EmergencyUpdateServiceLogger("V"), security);
  const fakes::RecordingLogSender log;
  EXPECT_TRUE(verifier.verify(URL::fileURL("/x"), std::nullopt, "Tag"));
  EXPECT_TRUE(log.records().empty());
  EXPECT_FALSE(verifier.verify(URL::fileURL("/missing"), std::nullopt, "Tag"));
  security.failures[1] = {.status = -67062, .error = std::nullopt};
  EXPECT_FALSE(verifier.verify(URL::fileURL("/x"), "1", "Tag"));
  security.compiles = false;
  EXPECT_FALSE(verifier.verify(URL::fileURL("/x"), "1\"", "Tag"));
  EXPECT_THAT(log.texts(), ElementsAre("error V: Can't instantiate SecStaticCode with given URL (Tag)",
                                       "error V: App verification failed with unknown error (Tag)",
                                       "error V: Can't instantiate SecRequirement with given requirementsText (Tag)"));
  EXPECT_EQ(log.records()[0].file + " " + log.records()[0].function,
            "Installer/EmergencyUpdateAppVerifier verify(codeAt:minimumBundleVersion:tag:)");
}

TEST(LaunchDecider, RelaunchesForAReason) {
  using Decider = EmergencyUpdatePostInstallLaunchDecider;
  using enum Decider::Reason;
  using Jobs = platform::PropertyList::Array;
  using Job = platform::PropertyList::Dictionary;
  const std::string label = "com.corvane.ProjectOrvik.LoginHelper";
  const std::vector<std::tuple<const char*, std::optional<platform::PropertyList>, bool>> rows = {
      {"no answer", std::nullopt, false},
      {"no array", Job{{"Label", label}, {"OnDemand", true}}, false},
      {"no jobs", Jobs{}, false},
      {"something else among them", Jobs{"text", Job{{"Label", label}, {"OnDemand", true}}}, false},
      {"another case", Jobs{Job{{"Label", "com.corvane.projectorvik.LoginHelper"}, {"OnDemand", true}}}, false},
      {"flag false", Jobs{Job{{"Label", label}, {"OnDemand", false}}}, false},
      {"flag a number", Jobs{Job{{"Label", label}, {"OnDemand", 1}}}, false},
      {"no flag", Jobs{Job{{"Label", label}}}, false},
      {"the first counts", Jobs{Job{{"Label", label}}, Job{{"Label", label}, {"OnDemand", true}}}, false},
      {"behind others", Jobs{Job{}, Job{{"Label", 1}}, Job{{"Label", label}, {"OnDemand", true}}}, true},
  };
  for (const auto& [name, jobs, enabled] : rows) {
    fakes::FakeServiceManagement launchd;
    launchd.jobs = jobs;
    const Decider decider(EmergencyUpdateServiceLogger("D"), Decider::ServiceManagementLibary(launchd));
    using Perform = Decider::Perform;
    EXPECT_EQ(decider.decide({}), enabled ? Decider::Decision(Perform{{launchAtStartupEnabled}}) : Decider::Skip{})
        << name;
    EXPECT_EQ(decider.decide({-1}), Decider::Decision(enabled ? Perform{{appPreviouslyRunning, launchAtStartupEnabled}}
                                                              : Perform{{appPreviouslyRunning}}))
        << name;
  }
}

}  // namespace
