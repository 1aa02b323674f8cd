#include "Support/World.h"

namespace {

platform::Bundle agentBundle(const rehearsal::StandInMac& mac) {
  return {.bundleURL = platform::URL::fileURL((mac.home() / "Agent.app").string(), platform::URL::PathKind::directory),
          .infoDictionary = {{"CFBundleVersion", "7.1"}},
          .bundleIdentifier = World::identifier};
}

}  // namespace

World::World()
    : bundle(agentBundle(mac)),
      machine_(fakes::machine(mac)),
      fileManager_(machine_.sysroot),
      searchPaths_(machine_.home, machine_.temporaryDirectory),
      processInfo_(machine_.sysroot),
      userDefaults_(machine_, identifier),
      facilities_{.clock = clock,
                  .mainRunLoop = runLoop,
                  .backgroundTasks = tasks,
                  .serialQueues = queues,
                  .mainBundle = bundle,
                  .processInfo = processInfo_,
                  .userDefaults = userDefaults_,
                  .fileManager = fileManager_,
                  .searchPaths = searchPaths_,
                  .urlContents = network,
                  .urlSessions = downloads,
                  .workspace = workspace,
                  .childProcesses = childProcesses,
                  .codeSecurity = codeSecurity,
                  .serviceManagement = serviceManagement,
                  .distributedNotificationCenter = notifications,
                  .processExit = processExit,
                  .systemLog = systemLog},
      senderBefore_(corvane::EmergencyUpdateServiceLogger::setSharedSender(
          std::make_shared<corvane::EmergencyUpdateServiceNullLogSender>())) {
  mac.setOperatingSystemVersion("14.5");
  mac.setMachineName("arm64");
  servesNothing();
}

World::~World() {
  service_.reset();
  corvane::EmergencyUpdateServiceLogger::setSharedSender(senderBefore_);
}

void World::installs(const std::string& version) {
  const platform::PropertyList information(platform::PropertyList::Dictionary{
      {"CFBundleIdentifier", std::string(corvane::OrvikApp::bundleIdentifier)}, {"CFBundleVersion", version}});
  rehearsal::writeFile(mac.sysroot() / "Applications/Orvik.app/Contents/Info.plist",
                       information.serialized(platform::PropertyList::Format::binary));
  workspace.registered = {platform::URL::fileURL("/Applications/Orvik.app", platform::URL::PathKind::directory)};
}

void World::serves(const std::string& list) {
  network.answer = [list](const platform::URL&) { return list; };
}

void World::servesNothing() {
  network.answer = [](const platform::URL&) {
    return std::unexpected(platform::NSError(platform::NSCocoaErrorDomain, platform::NSFileReadUnknownError));
  };
}

void World::hasNoBundleIdentifier() {
  bundle.bundleIdentifier.reset();
}

void World::stores(const platform::PropertyList& value, const std::string& key) {
  userDefaults_.standard()->set(value, key);
}

corvane::EmergencyUpdateService& World::service() {
  if (!service_) service_ = std::make_unique<corvane::EmergencyUpdateService>(facilities_);
  return *service_;
}

void World::launch() {
  service().launch();
  settle();
}

void World::settle() {
  runLoop.runOnce();
  tasks.runAll();
}

void World::advance(double seconds) {
  const double target = clock.uptime() + seconds;
  while (const auto next = runLoop.nextFireTime()) {
    if (*next > target || processExit.status) break;
    clock.moveTo(*next);
    settle();
  }
  clock.moveTo(target);
}

std::vector<std::string> World::recordsBesidesCounts() {
  auto messages = records();
  std::erase_if(messages, [](const std::string& message) { return message.starts_with(missingCount); });
  return messages;
}

std::vector<std::string> World::counts() {
  std::vector<std::string> counts;
  for (const std::string& message : records()) {
    if (message.starts_with(missingCount)) counts.push_back(message.substr(std::string_view(missingCount).size()));
  }
  return counts;
}

std::vector<std::string> World::records() {
  std::vector<std::string> messages;
  for (const auto& entry : systemLog.entries) messages.push_back(entry.message);
  systemLog.entries.clear();
  return messages;
}
