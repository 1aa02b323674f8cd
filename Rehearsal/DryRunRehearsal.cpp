#include "Rehearsal/DryRunRehearsal.h"

#include "Rehearsal/ChildProgram.h"
#include "Rehearsal/HTTPSServer.h"
#include "Rehearsal/StandInMac.h"

#include <array>
#include <atomic>
#include <csignal>

#include <fmt/format.h>

namespace rehearsal {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr auto stepLimit = 30s;
constexpr const char* installedVersion = "1.79.3";
constexpr const char* agentBundle = "Corvane Desktop Update Service.app";

constexpr const char* list = R"({
  "version": "1",
  "updates": [
    { "date": "2026-11-01", "appVersions": ["1.80"], "actions": [ { "install": { "url": "https://example.invalid/app.dmg" } } ] },
    { "date": "2026-11-02", "appVersions": ["1.79"], "osVersions": ["14"], "devicePlatforms": ["arm64"],
      "actions": [ { "dryRun": {} } ] }
  ]
})";

constexpr std::array terminationRecords = {
    "EmergencyUpdateService being terminated",
    "EmergencyUpdateService stopping update watchdog",
    "EmergencyUpdateService stopping checking list",
    "EmergencyUpdateService stopping cleanup manager",
};

fs::path prepare(const StandInMac& mac, const Stage& stage, const CertificateAuthority& authority, unsigned port,
                 Transcript& transcript) {
  mac.addSysroot(stage.prefix / "sysroot");
  mac.setOperatingSystemVersion("14.5");
  mac.setMachineName("arm64");
  mac.trust(authority.certificatePEM());
  mac.connect(CORVANE_DOWNLOAD_HOST, port);
  StandInMac::installApplication(stage.prefix / "Orvik.app", mac.sysroot() / "Applications", installedVersion);
  const fs::path agentFolder = mac.home() / "Library/Application Support/Corvane";
  fs::create_directories(agentFolder);
  fs::copy(stage.prefix / agentBundle, agentFolder / agentBundle, fs::copy_options::recursive);

  transcript.heading("A stand-in Mac");
  transcript.fact("folder", mac.folder().string());
  transcript.fact("system", "14.5 on arm64");
  transcript.fact("application", fmt::format("/Applications/Orvik.app {}, not running", installedVersion));
  transcript.fact("list", fmt::format("https://{}/emergency_update_list.json, served on 127.0.0.1:{}",
                                      CORVANE_DOWNLOAD_HOST, port));
  return agentFolder / agentBundle / "Contents/MacOS/EmergencyUpdateService";
}

/// Follows the agent's log from step to step, showing every record on the way.
class Steps {
 public:
  Steps(const StandInMac& mac, Transcript& transcript) : log_(mac.systemLog()), transcript_(transcript) {}

  bool reaches(const std::string& message) {
    if (log_.waitFor(message, stepLimit, [this](const LogEntry& entry) { transcript_.record(entry); })) return true;
    return failed(fmt::format("the record \"{}\" did not come within {} seconds", message, stepLimit.count()));
  }

  bool failed(const std::string& reason) {
    transcript_.heading("Failed: " + reason);
    return false;
  }

 private:
  LogFollower log_;
  Transcript& transcript_;
};

}  // namespace

bool rehearseDryRun(const Stage& stage, Transcript& transcript) {
  StandInMac mac;
  if (stage.keepsMac) mac.keep();
  std::atomic<int> listRequests = 0;
  const CertificateAuthority authority;
  const HTTPSServer server(authority.issue(CORVANE_DOWNLOAD_HOST), [&](const HTTPRequest& request) -> HTTPResponse {
    const bool isList = request.path == "/emergency_update_list.json";
    if (isList) ++listRequests;
    transcript.event(request.host, fmt::format("{} {}: {}", request.method, request.path, isList ? 200 : 404));
    return isList ? HTTPResponse{.status = 200, .body = list} : HTTPResponse{.status = 404};
  });
  const fs::path agent = prepare(mac, stage, authority, server.port(), transcript);
  Steps steps(mac, transcript);

  transcript.heading("The agent starts and checks the list");
  ChildProgram process(agent, {}, mac.environment());
  if (!steps.reaches("EmergencyUpdateService launching")) return false;
  if (!steps.reaches("Emergency update list check started")) return false;
  if (!steps.reaches("Dry run action triggered")) return false;
  transcript.event("context", fmt::format("installed {}, not running, 14.5.0, arm64: the list's second entry matches",
                                          installedVersion));
  if (listRequests != 1) return steps.failed(fmt::format("the list was requested {} times", listRequests.load()));

  transcript.heading("The agent is asked to quit");
  process.send(SIGTERM);
  for (const char* record : terminationRecords) {
    if (!steps.reaches(record)) return false;
  }
  const auto status = process.wait(stepLimit);
  if (status != 0) return steps.failed("the agent did not exit with status 0");
  transcript.event("agent", "exit status 0");

  transcript.heading("Passed: launched, list downloaded, matched, dry run performed, terminated in order.");
  if (stage.keepsMac) transcript.fact("log", mac.systemLog().string());
  return true;
}

}  // namespace rehearsal
