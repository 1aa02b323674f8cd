#include "Platform/PropertyList.h"
#include "Rehearsal/Maker.h"
#include "Rehearsal/Scene.h"

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

using rehearsal::HTTPRequest;
using rehearsal::HTTPResponse;
using rehearsal::Maker;
using rehearsal::Scene;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string listOf(const std::string& image) {
  return fmt::format(R"({{"version":"1","updates":[{{"date":"","appVersions":["1.79"],)"
                     R"("actions":[{{"install":{{"url":"https://{}"}}}}]}}]}})",
                     image);
}
const std::string list = listOf("images.corvane.example/Orvik.dmg");

/// One way for an install to end, provoked with the installed agent, as an ordinary user.
struct Ending {
  const char* name;
  Maker::Release release;
  std::function<void(const Scene&)> sabotage;  // before the agent starts
  std::vector<std::string> lastRecords;        // up to the last
  std::string installedVersion;                // afterwards; empty when the application is gone
};
void PrintTo(const Ending& ending, std::ostream* out) {
  *out << ending.name;
}

std::string installedVersion(const Scene& scene) {
  const fs::path plist = scene.orvik() / "Contents/Info.plist";
  if (!fs::exists(plist)) return "";
  return *platform::PropertyList::parse(rehearsal::readFile(plist))->operator[]("CFBundleVersion")->string();
}

/// Whoever's process it is.
bool hasProcessIn(const fs::path& bundle) {
  std::error_code error;
  return std::ranges::any_of(fs::directory_iterator("/proc"), [&](const fs::directory_entry& process) {
    return fs::read_symlink(process.path() / "exe", error).native().starts_with(bundle.native() + "/");
  });
}

class InstalledInstall : public testing::TestWithParam<Ending> {};

TEST_P(InstalledInstall, EndsAsItShould) {
  const Ending& ending = GetParam();
  rehearsal::Transcript transcript;
  const fs::path prefix = CORVANE_TEST_PREFIX;
  Scene scene({.prefix = prefix}, {}, transcript);
  const fs::path image = Maker(scene, prefix / "Orvik.app").pack(ending.release);
  scene.serve(CORVANE_DOWNLOAD_HOST, [](const HTTPRequest&) { return HTTPResponse{.body = list}; });
  scene.serve("images.corvane.example", [image](const HTTPRequest&) { return HTTPResponse{.file = image}; });
  scene.handToOrdinaryUser();
  if (ending.sabotage) ending.sabotage(scene);
  scene.startAgent();
  for (const std::string& record : ending.lastRecords) scene.reach({record});
  scene.quitAgent();
  EXPECT_EQ(installedVersion(scene), ending.installedVersion);
  EXPECT_FALSE(hasProcessIn(scene.orvik())) << "it did not run before";
  EXPECT_TRUE(fs::is_empty(scene.mac().sysroot() / "Volumes")) << "still mounted";
  const std::string log = rehearsal::readFile(scene.mac().systemLog());
  EXPECT_EQ(log.contains(R"("messageType":"Fault")"), ending.name != std::string("Completed")) << log;
  chmod((scene.mac().sysroot() / "Applications").c_str(), 0755);
}

const std::string tooOld = "App verification failed, status=-67050, error={Domain=NSOSStatusErrorDomain, Code=-67050} ";
const std::string isUnsigned =
    "App verification failed, status=-67062, error={Domain=NSOSStatusErrorDomain, Code=-67062} ";

INSTANTIATE_TEST_SUITE_P(
    Stops, InstalledInstall,
    testing::Values(
        Ending{"Completed", {}, {}, {"Skipping app launch", "Installation completed", "Cleaning up"}, "1.80.0"},
        Ending{"NotWritable",
               {},
               [](const Scene& scene) { chmod(scene.orvik().c_str(), 0555); },
               {"Checking ability to replace app files",
                "Installer stopped, aborting install early because replacing app files is not possible"},
               "1.79.3"},
        Ending{"UnsignedImage",
               {.signsImage = false},
               {},
               {isUnsigned + "(InitialVerification)", "Installer stopped, initial verification failed"},
               "1.79.3"},
        Ending{"AnotherRoot",
               {},
               [](const Scene& scene) { fs::remove(scene.mac().sysroot() / "System/Library/Security/anchors.pem"); },
               {tooOld + "(InitialVerification)", "Installer stopped, initial verification failed"},
               "1.79.3"},
        Ending{
            "NoApplication", {.hasApp = false}, {}, {"Unarchiving", "Installer stopped, unarchiving failed"}, "1.79.3"},
        Ending{"FolderNotWritable",
               {},
               [](const Scene& scene) { chmod((scene.mac().sysroot() / "Applications").c_str(), 0555); },
               {"Could not remove app files: {Domain=NSCocoaErrorDomain, Code=513, "
                "UnderlyingError={Domain=NSPOSIXErrorDomain, Code=13}}",
                "Installer stopped, replacing app files failed", "Cleaning up"},
               ""},
        Ending{"UnsignedApplication",
               {.signsApp = false},
               {},
               {isUnsigned + "(FinalVerification)", "Installer stopped, final verification failed", "Cleaning up"},
               "1.80.0"},
        Ending{"OlderApplication",
               {.version = "1.79.2"},
               {},
               {tooOld + "(FinalVerification)", "Installer stopped, final verification failed", "Cleaning up"},
               "1.79.2"}),
    [](const auto& row) { return row.param.name; });

/// Plays the log collector; keeps what was posted, headers and all.
class Posts {
 public:
  HTTPResponse receive(const HTTPRequest& request) {
    const std::scoped_lock lock(mutex_);
    for (const auto& [name, value] : request.headers) all_ += value + "\n";
    all_ += request.body + "\n";
    changed_.notify_all();
    return {};
  }
  /// Everything posted up to the record with this message.
  std::string upTo(const std::string& message) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, 60s, [&] { return all_.contains(message); })) << message;
    return all_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string all_;
};

TEST(InstalledAgentsPosts, NameNeitherTheUserNorTheirPlaces) {
  const std::string user = "sesquipedalian";
  const std::string host = "quixotry.example";
  const std::string query = "zymurgy";
  for (const bool fails : {false, true}) {
    Posts posts;
    rehearsal::Transcript transcript;
    Scene scene({.prefix = CORVANE_TEST_PREFIX}, {.userName = user}, transcript);
    const fs::path image = Maker(scene, scene.orvik()).pack({});
    scene.serve(CORVANE_DOWNLOAD_HOST, [&](const HTTPRequest&) {
      return HTTPResponse{.body = listOf(fmt::format("{}/xylophagous.dmg?{}", host, query))};
    });
    scene.serve(CORVANE_LOG_HOST, [&](const HTTPRequest& request) { return posts.receive(request); });
    if (!fails) scene.serve(host, [image](const HTTPRequest&) { return HTTPResponse{.file = image}; });
    if (fails) scene.mac().connect(host, 1);
    scene.openOrvik();
    scene.startAgent();
    const std::string end = fails ? "Installer stopped, download failed" : "Cleaning up";
    scene.reach({end});
    const std::string posted = posts.upTo(end);
    EXPECT_THAT(posted, testing::HasSubstr(R"("agentID":")"));
    EXPECT_THAT(posted, testing::HasSubstr("Install action triggered"));
    for (const std::string& word : {user, host, query, std::string("xylophagous"), scene.mac().folder().string()}) {
      EXPECT_THAT(posted, testing::Not(testing::HasSubstr(word)));
    }
    scene.quitAgent();
    scene.quitOrvik();
  }
}

TEST(InstalledAgentAtOnce, InstallsWhileTheApplicationUpdatesItself) {
  std::promise<void> halfway;
  std::promise<void> goOn;
  rehearsal::Transcript transcript;
  const fs::path prefix = CORVANE_TEST_PREFIX;
  Scene scene({.prefix = prefix}, {}, transcript);
  const fs::path image = Maker(scene, prefix / "Orvik.app").pack({.ballastBytes = 8U << 20U});
  scene.serve(CORVANE_DOWNLOAD_HOST, [](const HTTPRequest&) { return HTTPResponse{.body = list}; });
  scene.serve("images.corvane.example", [&halfway, &goOn, image](const HTTPRequest&) {
    return HTTPResponse{.file = image, .progress = [&, told = false](std::size_t sent, std::size_t total) mutable {
                          if (told || sent < total / 2) return;
                          told = true;
                          halfway.set_value();
                          goOn.get_future().wait();
                        }};
  });
  scene.serveCollector(CORVANE_LOG_HOST);
  scene.openOrvik();
  scene.startAgent();
  ASSERT_EQ(halfway.get_future().wait_for(60s), std::future_status::ready);

  scene.post("com.corvane.ProjectOrvik.updateServiceWillInstallUpdate");
  scene.quitOrvik();
  fs::remove_all(scene.orvik());
  rehearsal::StandInMac::installApplication(prefix / "Orvik.app", scene.orvik().parent_path(), "1.79.9");
  scene.openOrvik();
  scene.post("com.corvane.ProjectOrvik.updateServiceUpdateCompleted");
  // One launch too many, so that there is something to see.
  scene.post("com.corvane.ProjectOrvik.applicationDidFinishLaunching");
  scene.reach({"App was already 'launched', possible version 1.79.9 crash or force termination"});
  const auto updated = scene.runningOrvik();

  goOn.set_value();
  scene.reach({"Launching app: [\"appPreviouslyRunning\"]"});
  scene.reach({"Cleaning up"});
  scene.requireCollected("Cleaning up");
  const auto installed = scene.runningOrvik();
  ASSERT_TRUE(updated && installed);
  EXPECT_EQ(installed->version, "1.80.0");
  EXPECT_NE(installed->processIdentifier, updated->processIdentifier);
  for (const auto& entry : scene.quitAgent()) EXPECT_NE(entry.category, "UpdateWatchdog") << entry.message;
  scene.quitOrvik();
}

}  // namespace
