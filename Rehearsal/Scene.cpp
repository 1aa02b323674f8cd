#include "Rehearsal/Scene.h"

#include "Platform/PropertyList.h"
#include "Posix/DatagramNotificationCenter.h"
#include "Posix/DistributedNotificationPoster.h"
#include "Posix/FileDescriptor.h"
#include "Posix/Pidfd.h"
#include "Posix/PosixWorkspace.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <thread>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <poll.h>

namespace rehearsal {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* agentBundleName = "Corvane Desktop Update Service.app";
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

/// Whether the process waits for something that may take as long as it will.
bool isAsleep(pid_t process) {
  const std::string status = readFile(fmt::format("/proc/{}/stat", process));
  return status.substr(status.rfind(')') + 1).starts_with(" S");
}

}  // namespace

void handOver(const fs::path& path) {
  if (getuid() != 0) return;
  std::vector<fs::path> all{path};
  if (fs::is_directory(fs::symlink_status(path))) {
    for (const auto& entry : fs::recursive_directory_iterator(path)) all.push_back(entry.path());
  }
  for (const fs::path& each : all) {
    if (lchown(each.c_str(), ordinaryUser, ordinaryUser) != 0) throw Failure("cannot hand over " + each.string());
  }
}

Scene::Scene(const Stage& stage, const Setting& setting, Transcript& transcript)
    : stage_(stage), transcript_(transcript), mac_(setting.userName) {
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

Scene::~Scene() {
  agent_.reset();
  mac_.endPrograms();
  if (hasCollector_) {
    transcript_.settle();
    const auto [received, taken] = collector_.totals();
    const std::string late = received == taken ? "" : fmt::format(", {} after it was shown", received - taken);
    transcript_.heading(fmt::format("Totals: {} records in the system log, {} of them received by the collector{}",
                                    records_, received, late));
  }
  transcript_.settle();
}

fs::path Scene::agentBundle() const {
  return mac_.home() / "Library/Application Support/Corvane" / agentBundleName;
}

void Scene::installAgent() const {
  fs::create_directories(agentBundle().parent_path());
  fs::copy(stage_.prefix / agentBundleName, agentBundle(), fs::copy_options::recursive);
  fs::copy(stage_.prefix / "LaunchAgents", mac_.home() / "Library/LaunchAgents", fs::copy_options::recursive);
}

void Scene::serve(const std::string& host, const HTTPSServer::Handler& handler) {
  Server& server = servers_.emplace_back(Server{.credentials = authority_.issue(host), .server = nullptr});
  server.server = std::make_unique<HTTPSServer>(server.credentials, handler);
  mac_.connect(host, server.server->port());
  transcript_.fact("server", fmt::format("https://{} is 127.0.0.1:{}", host, server.server->port()));
}

void Scene::serveCollector(const std::string& host) {
  hasCollector_ = true;
  serve(host, [this](const HTTPRequest& request) { return collector_.receive(request); });
}

void Scene::requireCollected(const std::string& message) {
  if (!collector_.waitFor(message, usualLimit)) {
    throw Failure(fmt::format("the collector did not receive \"{}\"", message));
  }
}

void Scene::runTool(const std::string& path, const std::vector<std::string>& arguments) const {
  ChildProgram tool = start(mac_.sysroot().string() + path, arguments);
  const auto status = tool.wait(usualLimit);
  if (status != 0) throw Failure(fmt::format("{} {} failed", path, fmt::join(arguments, " ")));
}

void Scene::handToOrdinaryUser() {
  if (getuid() != 0) return;
  handOver(mac_.folder());
  belongsToOrdinaryUser_ = true;
}

Scene::Command Scene::command(const fs::path& executable, const std::vector<std::string>& arguments) const {
  std::vector<std::string> environment = mac_.environment();
  environment.emplace_back("PATH=/usr/bin:/bin");
  if (!belongsToOrdinaryUser_) return {executable, arguments, environment};
  const std::string user = std::to_string(ordinaryUser);
  std::vector<std::string> words{"--reuid", user, "--regid", user, "--clear-groups", executable.string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return {"/usr/bin/setpriv", words, environment};
}

ChildProgram Scene::start(const fs::path& executable, const std::vector<std::string>& arguments) const {
  const Command line = command(executable, arguments);
  return {line.executable, line.arguments, line.environment, StandardOutput::discarded};
}

fs::path Scene::agentExecutable() const {
  return agentBundle() / "Contents/MacOS/EmergencyUpdateService";
}

void Scene::startAgent() {
  transcript_.heading("The agent starts and checks the list");
  transcript_.columns();
  agent_.emplace(start(agentExecutable(), {}));
}

std::optional<LogEntry> Scene::next(std::chrono::steady_clock::time_point deadline) {
  auto entry = log_.next(deadline);
  if (entry) {
    ++records_;
    transcript_.record(*entry, hasCollector_ ? &collector_ : nullptr);
  }
  return entry;
}

LogEntry Scene::reach(const std::vector<std::string>& messages, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (auto entry = next(deadline)) {
    if (std::ranges::find(messages, entry->message) != messages.end()) return *std::move(entry);
  }
  throw Failure(
      fmt::format("within {} seconds there was no record \"{}\"", limit.count(), fmt::join(messages, "\" or \"")));
}

std::vector<LogEntry> Scene::quitAgent() {
  transcript_.heading("The agent is asked to quit");
  agent_->send(SIGTERM);
  std::vector<LogEntry> last = awaitEndOfAgent();
  auto after = last.begin();
  for (const char* record : terminationRecords) {
    after = std::ranges::find(after, last.end(), record, &LogEntry::message);
    if (after == last.end()) throw Failure(fmt::format("the agent quit without the record \"{}\"", record));
  }
  return last;
}

std::vector<LogEntry> Scene::awaitEndOfAgent() {
  const auto status = agent_->wait(usualLimit);
  std::vector<LogEntry> last;
  while (auto entry = next(std::chrono::steady_clock::now())) last.push_back(*std::move(entry));
  if (status != 0) throw Failure(status ? fmt::format("the agent ended with status {}", *status) : "the agent runs on");
  transcript_.event("agent", "exit status 0");
  if (stage_.keepsMac) transcript_.fact("log", mac_.systemLog().string());
  return last;
}

void Scene::openOrvik() {
  bool hasSaidSo = false;
  asio::io_context io;
  platform::posix::DatagramNotificationCenter center(io, mac_.temporaryDirectory().string());
  center.addObserver(&center, "com.corvane.ProjectOrvik.applicationDidFinishLaunching",
                     platform::DistributedNotificationCenter::SuspensionBehavior::deliverImmediately, [&](const auto&) {
                       hasSaidSo = true;
                       io.stop();
                     });
  runTool("/usr/bin/open", {"/Applications/Orvik.app"});
  io.run_for(usualLimit);
  const auto running = runningOrvik();
  if (!hasSaidSo || !running) throw Failure("Orvik did not say that it has launched");
  // The agent's socket may come after ours; Orvik sleeps once it has told all of them.
  while (!isAsleep(running->processIdentifier)) std::this_thread::sleep_for(1ms);
}

void Scene::post(const std::string& name) {
  transcript_.event("notification", name);
  platform::posix::postDistributedNotification(mac_.temporaryDirectory().string(), name);
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

void Scene::quitOrvik() {
  const auto running = runningOrvik();
  if (!running) throw Failure("Orvik does not run");
  const platform::posix::FileDescriptor process(pidfd_open(running->processIdentifier, 0));
  kill(running->processIdentifier, SIGTERM);
  pollfd end{.fd = process.get(), .events = POLLIN, .revents = 0};
  const std::chrono::milliseconds limit = usualLimit;
  if (poll(&end, 1, static_cast<int>(limit.count())) != 1) throw Failure("Orvik did not quit");
  transcript_.event("Orvik", fmt::format("{} has quit", running->version));
}

}  // namespace rehearsal
