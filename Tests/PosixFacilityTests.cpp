#include "Environment/EmergencyUpdateServiceAgentEnvironment.h"
#include "Environment/EmergencyUpdateServiceRuntimeEnvironment.h"
#include "Environment/OrvikApp.h"
#include "Posix/FileUserDefaults.h"
#include "Posix/MainBundle.h"
#include "Posix/NdjsonSystemLog.h"
#include "Posix/PosixChildProcess.h"
#include "Posix/PosixFileManager.h"
#include "Posix/PosixProcessInfo.h"
#include "Posix/PosixWorkspace.h"
#include "Rehearsal/ChildProgram.h"
#include "Support/Fakes.h"
#include "Support/Machine.h"
#include "Support/RecordingLogSender.h"

#include <csignal>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

using namespace std::chrono_literals;
using namespace platform;
using namespace platform::posix;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr const char* orvik = "com.corvane.ProjectOrvik";

/// The real implementations over a stand-in Mac's files.
class PosixFacilities : public testing::Test {
 protected:
  rehearsal::StandInMac mac;
  Machine machine = fakes::machine(mac);
  PosixFileManager fileManager{machine.sysroot};
  HomeSearchPaths searchPaths{machine.home};
  PosixWorkspace workspace{machine};
  PosixProcessInfo processInfo{machine.sysroot};
  PosixChildProcessLauncher children{machine.sysroot};

  /// A bundle with an Info.plist of these entries; returns its path on this machine.
  static fs::path bundle(const fs::path& path, const PropertyList::Dictionary& information) {
    rehearsal::writeFile(path / "Contents/Info.plist", PropertyList(information).serialized(PropertyList::Format::xml));
    return path;
  }
  fs::path app(const std::string& macPath, const std::string& identifier = orvik) const {
    return bundle(mac.sysroot().string() + macPath, {{"CFBundleIdentifier", identifier}, {"CFBundleVersion", "1.2"}});
  }
  fs::path homeApp(const std::string& path) const {
    return bundle(mac.home() / path, {{"CFBundleIdentifier", orvik}, {"CFBundleVersion", "3.4"}});
  }
  /// A process of the bundle that sleeps.
  static rehearsal::ChildProgram start(const fs::path& bundle, const char* program) {
    fs::create_directories(bundle / "Contents/MacOS");
    fs::copy_file("/bin/sleep", bundle / "Contents/MacOS" / program);
    return {bundle / "Contents/MacOS" / program, {"60"}, {}};
  }
  corvane::OrvikApp::StateProviderImpl provider() const {
    return {corvane::EmergencyUpdateServiceLogger("P"), fileManager, workspace, searchPaths, processInfo};
  }
  ChildProcessResult bash(const std::string& script) {
    return children.run("/bin/bash", {"-c", script}, ChildProcessLauncher::Capture::yes);
  }
};

TEST_F(PosixFacilities, RegisteredApplicationsComeInOrder) {
  app("/Applications/Tools/B.app");
  app("/Applications/b.app");
  app("/Applications/Z.app");
  app("/Applications/Other.app", "com.corvane.ProjectOrvikHelper");
  app("/Applications/Deep/er/C.app");
  app("/Applications/Z.app/Inner.app");
  app("/System/Applications/S.app");
  rehearsal::writeFile(mac.sysroot() / "Applications/Broken.app/Contents/Info.plist", "no list");
  homeApp("Downloads/D.app");
  homeApp("Applications/H.app");
  std::vector<std::string> paths;
  for (const URL& url : workspace.urlsForApplications(orvik)) paths.push_back(url.path());
  EXPECT_THAT(
      paths, ElementsAre(machine.home + "/Applications/H.app", "/Applications/Z.app", "/Applications/b.app",
                         "/Applications/Tools/B.app", "/System/Applications/S.app", machine.home + "/Downloads/D.app"));
  EXPECT_EQ(workspace.urlForApplication(orvik)->path(), machine.home + "/Applications/H.app");
  EXPECT_EQ(workspace.urlForApplication("com.corvane.projectorvik"), std::nullopt);
}

TEST_F(PosixFacilities, TheInstalledCopyLiesInAnApplicationsDirectory) {
  mac.setOperatingSystemVersion("14.5");
  EXPECT_EQ(provider().installationURL(), std::nullopt);
  homeApp("Downloads/D.app");
  EXPECT_EQ(provider().installationURL(), std::nullopt) << "outside every applications directory";
  EXPECT_FALSE(provider().isInstalled());
  const fs::path real = app("/Applications/Folder/Sub/Orvik.app");  // too deep to be registered itself
  fs::create_directories(mac.home() / "Desktop");
  fs::create_symlink(real, mac.home() / "Desktop/Link.app");
  EXPECT_EQ(provider().installationURL()->path(), machine.home + "/Desktop/Link.app") << "through a link";
  EXPECT_TRUE(provider().isInstalled());
  app("/Applications/Orvik.app");
  EXPECT_EQ(provider().installationURL()->path(), "/Applications/Orvik.app");
  EXPECT_EQ(provider().bundleVersion(), "1.2");
}

TEST_F(PosixFacilities, BeforeSystem12OnlyTheFirstCopyCounts) {
  mac.setOperatingSystemVersion("11.7.10");
  // Registered first, yet outside: its folder is a link that leads away.
  homeApp("Elsewhere/A.app");
  fs::create_directories(mac.sysroot() / "Applications");
  fs::create_symlink(mac.home() / "Elsewhere/A.app", mac.sysroot() / "Applications/A.app");
  app("/Applications/B.app");
  EXPECT_EQ(provider().installationURL(), std::nullopt);
  mac.setOperatingSystemVersion("12");
  EXPECT_EQ(provider().installationURL()->path(), "/Applications/B.app");
}

TEST_F(PosixFacilities, SaysWhyThereIsNoBundleVersion) {
  mac.setOperatingSystemVersion("14.5");
  const auto reason = [&](const Workspace* in = nullptr) {
    const fakes::RecordingLogSender log;
    const corvane::OrvikApp::StateProviderImpl asked(corvane::EmergencyUpdateServiceLogger("P"), fileManager,
                                                     in != nullptr ? *in : workspace, searchPaths, processInfo);
    EXPECT_EQ(asked.bundleVersion(), std::nullopt);
    EXPECT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records()[0].file + " " + log.records()[0].function, "Environment/OrvikApp bundleVersion");
    return log.texts()[0];
  };
  EXPECT_EQ(reason(), "error P: Could not retrieve orvik application installation URL");
  fakes::FakeWorkspace stale;  // it knows a bundle that is no longer whole
  stale.registered = {URL::fileURL("/Applications/Orvik.app")};
  fs::create_directories(mac.sysroot() / "Applications/Orvik.app");
  EXPECT_EQ(reason(&stale), "error P: Info plist could not be found");
  rehearsal::writeFile(mac.sysroot() / "Applications/Orvik.app/Contents/Info.plist", "nonsense");
  EXPECT_EQ(reason(&stale), "error P: Info plist could not be parsed");
  bundle(mac.sysroot() / "Applications/Orvik.app", {{"CFBundleIdentifier", orvik}, {"CFBundleVersion", 12}});
  EXPECT_EQ(reason(), "error P: Could not find orvik application version");
  bundle(mac.sysroot() / "Applications/Orvik.app", {{"CFBundleIdentifier", orvik}});
  EXPECT_EQ(reason(), "error P: Could not find orvik application version");
}

TEST_F(PosixFacilities, ChildrenFindTheMachinesProgramsWhereNobodyNamedAPath) {
  const std::string path = std::getenv("PATH");
  unsetenv("PATH");
  EXPECT_THAT(
      bash("id -u; echo $PATH").standardOutput,
      testing::Optional(testing::MatchesRegex("[0-9]+\n" + machine.sysroot.beneath("usr/bin") + ":.*:/usr/bin:.*")));
  setenv("PATH", path.c_str(), 1);
}

TEST_F(PosixFacilities, RunningApplicationsAreProcessesOfBundles) {
  const auto identifiers = [&] {
    std::vector<std::pair<std::int32_t, std::string>> found;
    for (const auto& running : workspace.runningApplications()) {
      found.emplace_back(running->processIdentifier(), running->bundleIdentifier().value_or("(none)"));
    }
    return found;
  };
  const fs::path orvikApp = app("/Applications/Orvik.app");
  auto first = start(orvikApp, "Orvik");
  auto helper = start(app("/Applications/Orvik.app/Contents/Helper.app", "com.corvane.ProjectOrvik.helper"), "Helper");
  auto anonymous = start(bundle(mac.home() / "Anonymous.app", {}), "Anonymous");
  auto bare = start(mac.home() / "Bare.app", "Bare");  // no Info.plist
  auto loose = start(mac.home() / "folder", "Loose");
  EXPECT_THAT(identifiers(), ElementsAre(std::pair(first.processIdentifier(), orvik),
                                         std::pair(helper.processIdentifier(), "com.corvane.ProjectOrvik.helper"),
                                         std::pair(anonymous.processIdentifier(), "(none)")));
  EXPECT_EQ(provider().runningApplications().size(), 1U);

  // A bundle replaced under its running process counts by the Info.plist that stands there now.
  fs::remove_all(orvikApp);
  EXPECT_THAT(identifiers(), ElementsAre(std::pair(anonymous.processIdentifier(), "(none)")));
  app("/Applications/Orvik.app");
  EXPECT_THAT(provider().runningApplications(), testing::SizeIs(1));

  const auto running = provider().runningApplications();
  EXPECT_TRUE(running[0]->terminate());
  EXPECT_EQ(first.wait(10s), 128 + SIGTERM);
  EXPECT_FALSE(running[0]->terminate()) << "gone already";
  EXPECT_TRUE(workspace.runningApplications()[0]->forceTerminate());
  EXPECT_EQ(anonymous.wait(10s), 128 + SIGKILL);
}

TEST_F(PosixFacilities, AZombieDoesNotRun) {
  const rehearsal::ChildProgram program = start(app("/Applications/Orvik.app"), "Orvik");
  program.send(SIGKILL);
  siginfo_t end{};
  waitid(P_PID, static_cast<id_t>(program.processIdentifier()), &end, WEXITED | WNOWAIT);  // dead, not yet reaped
  EXPECT_THAT(workspace.runningApplications(), IsEmpty());
}

TEST_F(PosixFacilities, ChildrenReportTheirEnd) {
  const auto exited = bash("printf 'out\\n'; printf err >&2; exit 3");
  EXPECT_EQ(exited.reason, ChildProcessResult::Reason::exit);
  EXPECT_EQ(exited.status, 3);
  EXPECT_EQ(exited.standardOutput, "out\n");
  EXPECT_EQ(exited.standardError, "err");
  const auto killed = bash("kill -9 $$");
  EXPECT_EQ(killed.reason, ChildProcessResult::Reason::uncaughtSignal);
  EXPECT_EQ(killed.status, 9);
  EXPECT_EQ(bash("true").standardOutput, std::nullopt);
  for (const char* path : {"/no/such/program", "/usr/bin/hdiutil", "/etc/hostname", "/"}) {
    const auto missing = children.run(path, {}, ChildProcessLauncher::Capture::yes);
    EXPECT_EQ(missing.reason, ChildProcessResult::Reason::notStarted) << path;
    EXPECT_EQ(missing.status, 127) << path;
  }
  const auto words = children.run("/usr/bin/printf", {"[%s]", "a b", "", "'$x'"}, ChildProcessLauncher::Capture::yes);
  EXPECT_EQ(words.standardOutput, "[a b][]['$x']");
}

TEST_F(PosixFacilities, ChildrenMayWriteAnyAmountAndLeaveOthersBehind) {
  const auto result = bash("head -c 10000000 /dev/zero & head -c 10000000 /dev/zero >&2; wait");
  EXPECT_EQ(result.standardOutput.value_or("").size(), 10'000'000U);
  EXPECT_EQ(result.standardError.value_or("").size(), 10'000'000U);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(bash("echo started; sleep 30 & disown").standardOutput, "started\n");
  EXPECT_TRUE(bash("yes & disown; sleep 0.1").standardOutput.value_or("").starts_with("y\ny\n"));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s) << "a grandchild that holds the pipe was waited for";
}

TEST_F(PosixFacilities, ChildrenInheritNothingButTheirStreams) {
  const int leak = open("/dev/null", O_RDONLY);  // not close-on-exec
  signal(SIGPIPE, SIG_IGN);
  const auto result = bash("ls /proc/self/fd | wc -l; ulimit -a >/dev/null; grep -E 'SigIgn|SigBlk' /proc/self/status");
  close(leak);
  EXPECT_THAT(result.standardOutput.value_or(""),
              testing::MatchesRegex("4\nSigBlk:\t0+\nSigIgn:\t0000000[01][08]0000000\n"))
      << "0 to 2 and the folder itself; the C library's own two signals may be ignored";
}

TEST_F(PosixFacilities, ScriptsReachTheSysrootsTools) {
  const auto tool = [&](const char* path) {
    const fs::path file = mac.sysroot().string() + path;
    rehearsal::writeFile(file, "#!/bin/bash\necho \"${0##*/} here: $*\"\n");
    fs::permissions(file, fs::perms::owner_all);
  };
  EXPECT_EQ(bash("/usr/bin/open x").status, 127) << "a tool that is not in the sysroot does not exist";
  EXPECT_EQ(bash("launchctl list").status, 127);
  tool("/usr/bin/open");
  tool("/bin/launchctl");
  EXPECT_EQ(bash("(\n    /usr/bin/open '/Applications/A B.app' --args x && launchctl list\n)").standardOutput,
            "open here: /Applications/A B.app --args x\nlaunchctl here: list\n");
  EXPECT_EQ(children.run("/usr/bin/open", {"y"}, ChildProcessLauncher::Capture::yes).standardOutput, "open here: y\n");
}

TEST_F(PosixFacilities, UserDefaultsKeepKindsAndOtherKeys) {
  FileUserDefaultsDomains domains(machine, "com.corvane.Agent");
  const fs::path file = mac.home() / "Library/Preferences/com.corvane.Agent.plist";
  const auto defaults = domains.standard();
  EXPECT_EQ(defaults->object("k"), std::nullopt);
  rehearsal::writeFile(file,
                       R"(<plist><dict><key>text</key><string>600</string><key>flag</key><true/></dict></plist>)");
  defaults->set(600, "number");
  EXPECT_EQ(defaults->object("text"), PropertyList("600"));
  EXPECT_EQ(defaults->object("flag"), PropertyList(true));
  EXPECT_EQ(defaults->object("number"), PropertyList(600));
  struct stat status{};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), 1) << "something was left beside the file";

  for (const char* unreadable : {"no property list", "<plist><array/></plist>", "<plist><dict><key>k</key>", " "}) {
    rehearsal::writeFile(file, unreadable);
    EXPECT_EQ(defaults->object("k"), std::nullopt);
    defaults->set("x", "text");
    EXPECT_EQ(rehearsal::readFile(file), unreadable) << "what cannot be read was written over";
  }
  fs::remove(file);
  fs::create_symlink("away", file);
  defaults->set("x", "text");
  EXPECT_TRUE(fs::is_symlink(file)) << "a domain that is away was written over";
  fs::remove(file);
  rehearsal::writeFile(file, "");
  defaults->set("x", "text");
  EXPECT_EQ(defaults->object("text"), PropertyList("x"));
  for (const char* name : {"", "../x", "a/b"}) EXPECT_EQ(domains.suite(name), nullptr) << name;
  domains.suite(orvik)->set(true, "wasTerminatedNormally");
  EXPECT_EQ(defaults->object("wasTerminatedNormally"), std::nullopt);
  EXPECT_EQ(domains.suite(orvik)->object("wasTerminatedNormally"), PropertyList(true));
}

TEST_F(PosixFacilities, EnvironmentsAreDerivedFromBundleAndMachine) {
  const fs::path agent = bundle(mac.home() / "Agent.app", {{"CFBundleIdentifier", "b.id"}, {"CFBundleVersion", 7}});
  const Bundle main = makeBundle((agent / "Contents/MacOS/agent").string(), machine.sysroot);
  const auto environment = corvane::EmergencyUpdateServiceAgentEnvironment::current(main, searchPaths);
  ASSERT_TRUE(environment);
  EXPECT_EQ(environment->configPlistURL->path(), machine.home + "/Library/LaunchAgents/b.id.plist");
  EXPECT_EQ(environment->installationURL.path(), agent.string());
  EXPECT_EQ(corvane::EmergencyUpdateServiceAgentEnvironment::current(main, HomeSearchPaths(""))->configPlistURL,
            std::nullopt);
  const Bundle loose = makeBundle((agent / "Contents/Other/agent").string(), machine.sysroot);
  EXPECT_FALSE(corvane::EmergencyUpdateServiceAgentEnvironment::current(loose, searchPaths));

  using Runtime = corvane::EmergencyUpdateServiceRuntimeEnvironment;
  for (const auto& [stored, shown] : std::vector<std::pair<const char*, const char*>>{
           {"13.6", "13.6.0"}, {"14", "14.0.0"}, {"14.4.1", "14.4.1"}, {"x.2", "0.2.0"}, {"", "0.0.0"}}) {
    mac.setOperatingSystemVersion(stored);
    EXPECT_EQ(Runtime::current(main, processInfo).osVersion, shown);
  }
  EXPECT_EQ(Runtime::current(main, processInfo).version, "") << "a number is no version";
  for (const auto& [stored, shown] : std::vector<std::pair<const char*, const char*>>{
           {"arm64", "arm64"}, {"\x01 x86_64 \x7F", " x86_64 "}, {"arm\xC3\xA9", ""}, {"", ""}}) {
    mac.setMachineName(stored);
    EXPECT_EQ(Runtime::current(main, processInfo).devicePlatform, shown);
  }
}

TEST_F(PosixFacilities, ReadsRegularFilesOnly) {
  rehearsal::writeFile(mac.sysroot() / "Applications/file", "12345");
  mkfifo((mac.sysroot() / "Applications/fifo").c_str(), 0600);
  const auto read = [&](const char* path) -> std::string {
    const auto bytes = fileManager.contents(URL::fileURL(path), 5);
    return bytes ? *bytes : fmt::format("{}/{}", bytes.error().code(), bytes.error().underlyingError()->code());
  };
  EXPECT_EQ(read("/Applications/file"), "12345");
  EXPECT_EQ(read("/Applications/none"), "260/2");
  EXPECT_EQ(read("/Applications"), "256/21");
  EXPECT_EQ(read("/Applications/fifo"), "257/13");
  rehearsal::writeFile(mac.sysroot() / "Applications/file", "123456");
  EXPECT_EQ(read("/Applications/file"), "263/27");
}

TEST_F(PosixFacilities, SystemLogEntriesAreLinesOfJSON) {
  NdjsonSystemLog log(machine.home + "/new/home");
  const std::string path = machine.home + "/new/home/Library/Logs/system.ndjson";
  log.write("com.corvane", "A", SystemLog::Type::standard, "line\nbreak \"é\" \xFF");
  fs::rename(path, path + ".old");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < 100; ++k) log.write("com.corvane", "B", SystemLog::Type::fault, std::string(5000, 'x'));
    });
  }
  for (auto& thread : threads) thread.join();

  const auto entry = nlohmann::json::parse(rehearsal::readFile(path + ".old"));
  EXPECT_EQ(entry["eventMessage"], "line\nbreak \"é\" \xEF\xBF\xBD");
  EXPECT_THAT(entry["timestamp"].get<std::string>(),
              testing::MatchesRegex("20[0-9-]{8} [0-9:]{8}\\.[0-9]{6}[+-][0-9]{4}"));
  EXPECT_EQ(entry["subsystem"], "com.corvane");
  EXPECT_EQ(entry["messageType"], "Default");
  EXPECT_EQ(entry["processID"], getpid());
  EXPECT_EQ(entry["processImagePath"], fs::read_symlink("/proc/self/exe").string());
  std::istringstream lines(rehearsal::readFile(path));
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_EQ(nlohmann::json::parse(line)["messageType"], "Fault") << "two threads' entries are mixed up";
  }
  EXPECT_EQ(count, 400);
}

}  // namespace
