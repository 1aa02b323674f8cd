#include "Rehearsal/ChildProgram.h"
#include "Rehearsal/HTTPSServer.h"
#include "Rehearsal/LogFollower.h"
#include "Rehearsal/StandInMac.h"
#include "Support/RawServer.h"

#include <csignal>
#include <filesystem>

#include <gmock/gmock.h>

using namespace std::chrono_literals;
using rehearsal::ChildProgram;
using rehearsal::HTTPRequest;
using rehearsal::HTTPResponse;
using rehearsal::LogFollower;
using rehearsal::StandInMac;
namespace fs = std::filesystem;

namespace {

constexpr auto limit = 60s;
constexpr const char* listHost = CORVANE_DOWNLOAD_HOST;
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

  fs::path installOrvik() const {
    return StandInMac::installApplication(prefix / "Orvik.app", mac.sysroot() / "Applications", "1.79.3");
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
  void quit(int signal = SIGTERM) {
    agent->send(signal);
    EXPECT_EQ(agent->wait(limit), 0);
    upTo("EmergencyUpdateService being terminated");
    upTo("EmergencyUpdateService stopping cleanup manager");
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

TEST_F(InstalledAgent, PerformsADryRunAndQuitsWhenTold) {
  for (const int signal : {SIGTERM, SIGINT}) {
    AgentOnMac on(server.port(), authority.certificatePEM());
    on.installOrvik();
    on.start();
    on.upTo("Dry run action triggered");
    on.quit(signal);
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
  on.quit();
  EXPECT_FALSE(fs::exists(on.mac.home() / "Library/Preferences"));
}

TEST_F(InstalledAgent, LivesOnWhenTheListCannotBeHad) {
  const fakes::RawServer silent(fakes::RawServer::waitForClose);
  const fakes::RawServer garbage(fakes::RawServer::answering("\x15\x03garbage"));
  const rehearsal::CertificateAuthority stranger;
  for (const auto& [port, by] : {std::pair(fakes::RawServer::refusingPort(), &authority),
                                 std::pair(garbage.port(), &authority), std::pair(server.port(), &stranger)}) {
    AgentOnMac on(port, by->certificatePEM());
    on.start();
    EXPECT_THAT(on.upTo("Check aborted, could not download"),
                testing::Contains("Failed to download emergency update list"));
    EXPECT_TRUE(on.agent->isRunning());
    on.quit();
  }
  EXPECT_EQ(requests, 0);

  AgentOnMac hung(silent.port(), authority.certificatePEM());
  hung.start();
  hung.upTo("Emergency update list check started");
  hung.quit();  // at once, though the check still waits for its answer
}

TEST_F(InstalledAgent, HearsTheMainApplicationComeAndGo) {
  AgentOnMac on(server.port(), authority.certificatePEM());
  const fs::path app = on.installOrvik();
  on.start();
  on.upTo("Dry run action triggered");
  // Two processes of it, so that the second to come and the second to go are noted, whichever that is.
  ChildProgram one(app / "Contents/MacOS/Orvik", {}, on.mac.environment());
  ChildProgram other(app / "Contents/MacOS/Orvik", {}, on.mac.environment());
  on.upTo("App was already 'launched', possible version 1.79.3 crash or force termination");
  one.send(SIGTERM);
  other.send(SIGTERM);
  on.upTo("App was already 'terminated', attempting to terminate again");
  for (ChildProgram* each : {&one, &other}) EXPECT_EQ(each->wait(limit), 0);
  on.quit();
  EXPECT_TRUE(fs::is_empty(on.mac.temporaryDirectory() / "distnoted")) << "the agent's socket goes with it";
}

}  // namespace
