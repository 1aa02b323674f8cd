#include "Rehearsal/Scene.h"

#include "Platform/PropertyList.h"
#include "Posix/PosixWorkspace.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <set>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace rehearsal {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// No step takes nearly so long on a machine that is not overloaded.
constexpr auto stepLimit = 60s;
constexpr const char* agentBundle = "Corvane Desktop Update Service.app";
constexpr unsigned ordinaryUser = 65534;  // nobody
constexpr const char* orvikIdentifier = "com.corvane.ProjectOrvik";

constexpr std::array terminationRecords = {
    "EmergencyUpdateService being terminated",
    "EmergencyUpdateService stopping update watchdog",
    "EmergencyUpdateService stopping checking list",
    "EmergencyUpdateService stopping cleanup manager",
};

std::vector<std::string> argumentsOf(pid_t process) {
  std::vector<std::string> arguments;
  const std::string line = readFile(fmt::format("/proc/{}/cmdline", process));
  for (std::size_t start = 0; start < line.size(); start = line.find('\0', start) + 1) {
    arguments.emplace_back(line.c_str() + start);
  }
  if (!arguments.empty()) arguments.erase(arguments.begin());
  return arguments;
}

}  // namespace

Scene::Scene(const Stage& stage, const Setting& setting, Transcript& transcript)
    : stage_(stage), transcript_(transcript) {
  if (stage.keepsMac) mac_.keep();
  mac_.addSysroot(stage.prefix / "sysroot");
  mac_.setOperatingSystemVersion(setting.systemVersion);
  mac_.setMachineName(setting.machineName);
  mac_.trust(authority_.certificatePEM());
  StandInMac::installApplication(stage.prefix / "Orvik.app", mac_.sysroot() / "Applications", setting.installedVersion);
  installAgent();
  transcript_.heading("A stand-in Mac");
  transcript_.fact("folder", mac_.folder().string());
  transcript_.fact("system", fmt::format("{} on {}", setting.systemVersion, setting.machineName));
  transcript_.fact("application", fmt::format("/Applications/Orvik.app {}", setting.installedVersion));
}

void Scene::installAgent() const {
  const fs::path folder = mac_.home() / "Library/Application Support/Corvane";
  fs::create_directories(folder);
  fs::copy(stage_.prefix / agentBundle, folder / agentBundle, fs::copy_options::recursive);
  fs::copy(stage_.prefix / "LaunchAgents", mac_.home() / "Library/LaunchAgents", fs::copy_options::recursive);
}

void Scene::serve(const std::string& host, const HTTPSServer::Handler& handler) {
  Server& server = servers_.emplace_back(Server{.credentials = authority_.issue(host), .server = nullptr});
  server.server = std::make_unique<HTTPSServer>(server.credentials, handler);
  mac_.connect(host, server.server->port());
  transcript_.fact("server", fmt::format("https://{} is 127.0.0.1:{}", host, server.server->port()));
}

void Scene::serveCollector(const std::string& host) {
  serve(host, [this](const HTTPRequest& request) { return collector_.receive(request); });
}

void Scene::showCollected(const std::string& message) {
  const auto extra = collector_.extraOf(message, stepLimit);
  if (!extra) throw Failure(fmt::format("the collector did not receive \"{}\"", message));
  transcript_.event("collector", fmt::format("received \"{}\" {}", message, *extra));
}

void Scene::runTool(const std::string& path, const std::vector<std::string>& arguments) const {
  ChildProgram tool = start(mac_.sysroot().string() + path, arguments);
  const auto status = tool.wait(stepLimit);
  if (status != 0) throw Failure(fmt::format("{} {} failed", path, fmt::join(arguments, " ")));
}

void Scene::handToOrdinaryUser() {
  if (getuid() != 0) return;
  for (const auto& entry : fs::recursive_directory_iterator(mac_.folder())) {
    if (lchown(entry.path().c_str(), ordinaryUser, ordinaryUser) != 0) throw Failure("cannot hand over the Mac");
  }
  if (lchown(mac_.folder().c_str(), ordinaryUser, ordinaryUser) != 0) throw Failure("cannot hand over the Mac");
  belongsToOrdinaryUser_ = true;
}

ChildProgram Scene::start(const fs::path& executable, const std::vector<std::string>& arguments) const {
  std::vector<std::string> environment = mac_.environment();
  environment.emplace_back("PATH=/usr/bin:/bin");
  if (!belongsToOrdinaryUser_) return {executable, arguments, environment};
  const std::string user = std::to_string(ordinaryUser);
  std::vector<std::string> words{"--reuid", user, "--regid", user, "--clear-groups", executable.string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return {"/usr/bin/setpriv", words, environment};
}

fs::path Scene::agentExecutable() const {
  return mac_.home() / "Library/Application Support/Corvane" / agentBundle / "Contents/MacOS/EmergencyUpdateService";
}

void Scene::startAgent() {
  transcript_.heading("The agent starts and checks the list");
  agent_.emplace(start(agentExecutable(), {}));
}

std::string Scene::reach(const std::vector<std::string>& messages) {
  const auto deadline = std::chrono::steady_clock::now() + stepLimit;
  while (const auto entry = log_.next(deadline)) {
    transcript_.record(*entry);
    if (std::ranges::find(messages, entry->message) != messages.end()) return entry->message;
  }
  throw Failure(
      fmt::format("within {} seconds there was no record \"{}\"", stepLimit.count(), fmt::join(messages, "\" or \"")));
}

void Scene::quitAgent() {
  transcript_.heading("The agent is asked to quit");
  agent_->send(SIGTERM);
  for (const char* record : terminationRecords) reach({record});
  if (agent_->wait(stepLimit) != 0) throw Failure("the agent did not exit with status 0");
  transcript_.event("agent", "exit status 0");
  if (collector_.count() > 0) transcript_.event("collector", fmt::format("{} records received", collector_.count()));
  if (stage_.keepsMac) transcript_.fact("log", mac_.systemLog().string());
}

std::optional<Scene::Running> Scene::runningOrvik() const {
  const platform::posix::PosixWorkspace workspace({.sysroot = platform::posix::Sysroot(mac_.sysroot().string()),
                                                   .home = mac_.home().string(),
                                                   .temporaryDirectory = mac_.temporaryDirectory().string()});
  for (const auto& application : workspace.runningApplications()) {
    if (application->bundleIdentifier() != orvikIdentifier) continue;
    const auto information = platform::PropertyList::parse(readFile(orvik() / "Contents/Info.plist"));
    const auto* version = information ? (*information)["CFBundleVersion"] : nullptr;
    return Running{.processIdentifier = application->processIdentifier(),
                   .version = version != nullptr && version->string() != nullptr ? *version->string() : "?",
                   .arguments = argumentsOf(application->processIdentifier())};
  }
  return std::nullopt;
}

void Scene::showRunningOrvik(const std::string& heading) const {
  transcript_.heading(heading);
  const auto running = runningOrvik();
  transcript_.fact("Orvik", running ? fmt::format("{}, process {}, arguments [{}]", running->version,
                                                  running->processIdentifier, fmt::join(running->arguments, ", "))
                                    : "not running");
}

}  // namespace rehearsal
