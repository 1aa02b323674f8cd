#include "Posix/DistributedNotificationPoster.h"
#include "Rehearsal/ChildProgram.h"
#include "Rehearsal/HTTPSServer.h"
#include "Rehearsal/LogFollower.h"
#include "Rehearsal/StandInMac.h"
#include "Support/RawServer.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/un.h>

using namespace std::chrono_literals;
using rehearsal::ChildProgram;
using rehearsal::HTTPRequest;
using rehearsal::HTTPResponse;
using rehearsal::LogFollower;
using rehearsal::StandInMac;
using testing::ElementsAre;
namespace fs = std::filesystem;

namespace {

constexpr auto limit = 60s;
constexpr const char* listHost = "download.corvane.example";
constexpr const char* bundleName = "Corvane Desktop Update Service.app";

/// The agent as it is installed, started as a process on a stand-in Mac with nothing but the three variables.
class AgentOnMac {
 public:
  explicit AgentOnMac(unsigned listPort, const std::string& certificates) {
    mac.addSysroot(prefix / "sysroot");
    mac.setMachineName("arm64");
    mac.trust(certificates);
    mac.connect(listHost, listPort);
    fs::create_directories(agentFolder());
    fs::copy(prefix / bundleName, agentFolder() / bundleName, fs::copy_options::recursive);
  }

  fs::path agentFolder() const { return mac.home() / "Library/Application Support/Corvane"; }
  void start() { start(agentFolder() / bundleName / "Contents/MacOS/EmergencyUpdateService"); }
  void start(const fs::path& executable) { agent.emplace(executable, std::vector<std::string>{}, mac.environment()); }

  /// The messages up to and including this one.
  std::vector<std::string> upTo(const std::string& message) {
    std::vector<std::string> messages;
    EXPECT_TRUE(log.waitFor(message, limit, [&](const rehearsal::LogEntry& entry) {
      EXPECT_EQ(entry.processIdentifier, agent->processIdentifier());
      messages.push_back(entry.message);
    })) << message;
    return messages;
  }
  std::vector<std::string> quit(int signal) {
    agent->send(signal);
    EXPECT_EQ(agent->wait(limit), 0);
    auto messages = upTo("EmergencyUpdateService stopping cleanup manager");
    // The check for the main application takes its time independently of everything else.
    std::erase_if(messages, [](const auto& message) { return message.contains("times main app missing"); });
    return messages;
  }

  static inline const fs::path prefix = CORVANE_TEST_PREFIX;
  StandInMac mac;
  LogFollower log{mac.systemLog()};
  std::optional<ChildProgram> agent;
};

class InstalledAgent : public testing::Test {
 protected:
  const rehearsal::CertificateAuthority authority;
  std::string list = R"({"version":"1","updates":[{"date":"","appVersions":["1.79"],"actions":[{"dryRun":{}}]}]})";
  std::atomic<int> requests = 0;
  const rehearsal::HTTPSServer server{authority.issue(listHost), [this](const HTTPRequest& request) {
                                        EXPECT_EQ(request.path, "/emergency_update_list.json");
                                        EXPECT_EQ(request.method, "GET");
                                        ++requests;
                                        return HTTPResponse{.body = list};
                                      }};
};

TEST_F(InstalledAgent, PerformsADryRunAndQuitsInOrder) {
  for (const int signal : {SIGTERM, SIGINT}) {
    AgentOnMac on(server.port(), authority.certificatePEM());
    StandInMac::installApplication(AgentOnMac::prefix / "Orvik.app", on.mac.sysroot() / "Applications", "1.79.3");
    on.start();
    EXPECT_THAT(on.upTo("Dry run action triggered"),
                testing::IsSupersetOf(
                    {"EmergencyUpdateService launching", "EmergencyUpdateService starting update watchdog",
                     "EmergencyUpdateService starting checking list", "EmergencyUpdateService starting cleanup manager",
                     "Emergency update list check started"}));
    EXPECT_THAT(
        on.quit(signal),
        ElementsAre("EmergencyUpdateService being terminated", "EmergencyUpdateService stopping update watchdog",
                    "EmergencyUpdateService stopping checking list", "Emergency update list check stopped",
                    "EmergencyUpdateService stopping cleanup manager"));
    EXPECT_TRUE(fs::exists(on.mac.home() / "Library/Preferences/com.corvane.EmergencyUpdateService.plist"));
  }
  EXPECT_EQ(requests, 2);
}

TEST_F(InstalledAgent, OutsideABundleRunsWithoutAnIdentifier) {
  AgentOnMac on(server.port(), authority.certificatePEM());
  fs::copy(AgentOnMac::prefix / bundleName / "Contents/MacOS/EmergencyUpdateService", on.mac.folder() / "agent");
  on.start(on.mac.folder() / "agent");
  EXPECT_THAT(on.upTo("Validation succeeded with no matches"),
              testing::Contains("EmergencyUpdateService could not start cleanup manager: agentEnvironment is nil"));
  on.quit(SIGTERM);
  EXPECT_FALSE(fs::exists(on.mac.home() / "Library/Preferences"));
}

TEST_F(InstalledAgent, TwoMacsDoNotSeeEachOther) {
  AgentOnMac with(server.port(), authority.certificatePEM());
  AgentOnMac without(server.port(), authority.certificatePEM());
  const fs::path app =
      StandInMac::installApplication(AgentOnMac::prefix / "Orvik.app", with.mac.sysroot() / "Applications", "1.79.3");
  with.start();
  without.start();
  with.upTo("Dry run action triggered");
  EXPECT_THAT(without.upTo("Validation succeeded with no matches"),
              testing::Contains("Could not retrieve orvik application installation URL"));
  with.quit(SIGTERM);
  EXPECT_TRUE(without.agent->isRunning());
}

TEST_F(InstalledAgent, LivesOnWhenTheListCannotBeHad) {
  const fakes::RawServer silent(fakes::RawServer::waitForClose);
  const fakes::RawServer garbage([](int connection) { fakes::RawServer::answer(connection, "\x15\x03garbage"); });
  const rehearsal::CertificateAuthority stranger;
  std::uint16_t refused = 0;
  {
    refused = fakes::RawServer([](int) {}).port();
  }
  struct Row {
    const char* name;
    unsigned port;
    std::string certificates;
  };
  for (const Row& row :
       {Row{"refused", refused, authority.certificatePEM()}, Row{"no TLS", garbage.port(), authority.certificatePEM()},
        Row{"untrusted", server.port(), stranger.certificatePEM()}}) {
    AgentOnMac on(row.port, row.certificates);
    on.start();
    const auto messages = on.upTo("Check aborted, could not download");
    EXPECT_THAT(messages, testing::Contains("Failed to download emergency update list")) << row.name;
    EXPECT_TRUE(on.agent->isRunning()) << row.name;
    on.quit(SIGTERM);
  }
  EXPECT_EQ(requests, 0);

  AgentOnMac hung(silent.port(), authority.certificatePEM());
  hung.start();
  hung.upTo("Emergency update list check started");
  hung.quit(SIGTERM);  // at once, though the check still waits for its answer
}

TEST_F(InstalledAgent, HearsTheMainApplicationComeAndGo) {
  AgentOnMac on(server.port(), authority.certificatePEM());
  const fs::path app =
      StandInMac::installApplication(AgentOnMac::prefix / "Orvik.app", on.mac.sysroot() / "Applications", "1.79.3");
  on.start();
  on.upTo("Dry run action triggered");
  // Two processes of it, so that the second to come and the second to go are noted, whichever that is.
  ChildProgram one(app / "Contents/MacOS/Orvik", {}, on.mac.environment());
  ChildProgram other(app / "Contents/MacOS/Orvik", {}, on.mac.environment());
  on.upTo("App was already 'launched', possible version 1.79.3 crash or force termination");
  one.send(SIGTERM);
  other.send(SIGTERM);
  on.upTo("App was already 'terminated', attempting to terminate again");
  on.quit(SIGTERM);
  EXPECT_TRUE(fs::is_empty(on.mac.temporaryDirectory() / "distnoted")) << "the agent's socket goes with it";
}

TEST_F(InstalledAgent, TheMainApplicationAnnouncesStartAndEnd) {
  const StandInMac mac;
  const std::string folder = platform::posix::distributedNotificationFolder(mac.temporaryDirectory().string());
  fs::create_directories(folder);
  const platform::posix::FileDescriptor observer(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  (folder + "/observer.sock").copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(observer.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const timeval wait{.tv_sec = 60, .tv_usec = 0};
  setsockopt(observer.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  const auto received = [&] {
    std::string datagram(4096, '\0');
    datagram.resize(
        static_cast<std::size_t>(std::max<ssize_t>(recv(observer.get(), datagram.data(), datagram.size(), 0), 0)));
    return datagram;
  };
  // A socket nobody listens on any more lies there too.
  const std::string dead = folder + "/dead.sock";
  {
    const platform::posix::FileDescriptor gone(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un there{.sun_family = AF_UNIX, .sun_path = {}};
    dead.copy(static_cast<char*>(there.sun_path), sizeof there.sun_path - 1);
    ASSERT_EQ(bind(gone.get(), reinterpret_cast<const sockaddr*>(&there), sizeof there), 0);
  }
  ChildProgram app(AgentOnMac::prefix / "Orvik.app/Contents/MacOS/Orvik", {}, mac.environment());
  EXPECT_EQ(received(), R"({"name":"com.corvane.ProjectOrvik.applicationDidFinishLaunching"})");
  app.send(SIGTERM);
  EXPECT_EQ(received(), R"({"name":"com.corvane.ProjectOrvik.applicationWillTerminate"})");
  EXPECT_EQ(app.wait(limit), 0);
  EXPECT_FALSE(fs::exists(dead));
}

}  // namespace
