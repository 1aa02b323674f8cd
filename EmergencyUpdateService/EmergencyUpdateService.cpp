#include "EmergencyUpdateService.h"

#include "Environment/EmergencyUpdateServiceAgentIDProvider.h"
#include "Installer/EmergencyUpdateInstaller.h"

namespace corvane {
namespace {

constexpr platform::TimeInterval listCheckRunIntervalSeconds = 60.0;
constexpr platform::TimeInterval listCheckIntervalSeconds = 14400.0;
constexpr platform::TimeInterval downloadRequestTimeoutSeconds = 300.0;
constexpr platform::TimeInterval updateObservationTimeoutSeconds = 120.0;
constexpr platform::TimeInterval mainAppCheckRunIntervalSeconds = 60.0;
constexpr std::int64_t timesAppMissingLimit = 2;

}  // namespace

EmergencyUpdateService::EmergencyUpdateService(const platform::Facilities& platform)
    : platform_(platform),
      orvikAppStateProvider_(std::make_shared<OrvikApp::StateProviderImpl>(
          EmergencyUpdateServiceLogger("OrvikApp.StateProviderImpl"), platform.fileManager, platform.workspace,
          platform.searchPaths, platform.processInfo)),
      commandExecutor_(std::make_shared<CommandExecutorImpl>(platform.childProcesses, platform.processInfo)),
      installationMutex_(std::make_shared<OrvikApp::InstallationMutex>()) {}

void EmergencyUpdateService::launch() {
  if (hasLaunched_) {
    logger_.trace({"EmergencyUpdateService launch was already called. Ignoring."}, at("launch()"));
    return;
  }
  hasLaunched_ = true;
  resolveEnvironments();
  configureLogging();
  logger_.info({"EmergencyUpdateService launching"}, at("launch()"));
  startUpdateWatchdog();
  startCheckingEmergencyUpdateList();
  startCleanupManager();
}

void EmergencyUpdateService::resolveEnvironments() {
  backendEnvironment_ = EmergencyUpdateServiceBackendEnvironment::production();
  runtimeEnvironment_ = EmergencyUpdateServiceRuntimeEnvironment::current(platform_.mainBundle, platform_.processInfo);
  agentEnvironment_ = EmergencyUpdateServiceAgentEnvironment::current(platform_.mainBundle, platform_.searchPaths);
  if (agentEnvironment_) {
    overrides_.emplace(platform_.userDefaults.standard(), agentEnvironment_->bundleIdentifier);
  }
}

void EmergencyUpdateService::configureLogging() {
  EmergencyUpdateServiceLogger::configure(
      backendEnvironment_, runtimeEnvironment_,
      {.systemLog = platform_.systemLog, .serialQueues = platform_.serialQueues, .urlSessions = platform_.urlSessions});
  if (!agentEnvironment_) return;
  EmergencyUpdateServiceAgentIDProvider provider(platform_.userDefaults.standard(),
                                                 agentEnvironment_->bundleIdentifier + ".agentID");
  EmergencyUpdateServiceLogger::sharedSender().setAgentID(provider.agentID());
}

void EmergencyUpdateService::startUpdateWatchdog() {
  logger_.debug({"EmergencyUpdateService starting update watchdog"}, at("startUpdateWatchdog()"));
  ApplicationUpdateWatchdog::Collaborators collaborators{
      .notificationCenter = platform_.distributedNotificationCenter,
      .runLoop = platform_.mainRunLoop,
      .orvikAppStateProvider = orvikAppStateProvider_,
      .tracker =
          std::make_shared<ApplicationUpdateWatchdogTrackerImpl>(EmergencyUpdateServiceLogger("UpdateWatchdog"))};
  updateWatchdog_ =
      std::make_unique<ApplicationUpdateWatchdog>(std::move(collaborators), updateObservationTimeoutSeconds);
  updateWatchdog_->start();
}

platform::TimeInterval EmergencyUpdateService::checkIntervalSeconds() const {
  const auto override = overrides_ ? overrides_->listCheckTimeIntervalSeconds() : std::nullopt;
  return override.value_or(listCheckIntervalSeconds);
}

void EmergencyUpdateService::startCheckingEmergencyUpdateList() {
  if (!backendEnvironment_) {
    logger_.error({"EmergencyUpdateService could not start checking emergency update list: backendEnvironment is nil"},
                  at("startCheckingEmergencyUpdateList()"));
    return;
  }
  if (!runtimeEnvironment_) {
    logger_.error({"EmergencyUpdateService could not start checking emergency update list: runtimeEnvironment is nil"},
                  at("startCheckingEmergencyUpdateList()"));
    return;
  }
  using Logger = EmergencyUpdateServiceLogger;
  EmergencyUpdateListChecker::Collaborators collaborators{
      .logger = Logger("EmergencyUpdateListChecker"),
      .downloader = {Logger("EmergencyUpdateListDownloader"), backendEnvironment_->emergencyUpdateList,
                     platform_.urlContents},
      .updateContextRetriever = std::make_shared<EmergencyUpdateContextRetrieverImpl>(
          Logger("EmergencyUpdateContextRetrieverImpl"), *runtimeEnvironment_, orvikAppStateProvider_),
      .parser = EmergencyUpdateListParser(Logger("EmergencyUpdateListParser")),
      .validator = {},
      .actionsPerformer = {Logger("EmergencyUpdateActionsPerformer"), makeInstaller()},
      .clock = platform_.clock,
      .runLoop = platform_.mainRunLoop,
      .backgroundTasks = platform_.backgroundTasks};
  listChecker_ = std::make_shared<EmergencyUpdateListChecker>(std::move(collaborators), listCheckRunIntervalSeconds,
                                                              checkIntervalSeconds());
  logger_.debug({"EmergencyUpdateService starting checking list"}, at("startCheckingEmergencyUpdateList()"));
  listChecker_->start();
}

std::shared_ptr<EmergencyUpdateInstaller> EmergencyUpdateService::makeInstaller() const {
  using Logger = EmergencyUpdateServiceLogger;
  const auto networkSession = platform_.urlSessions.session(
      {.timeoutIntervalForRequest = downloadRequestTimeoutSeconds, .waitsForConnectivity = true});
  EmergencyUpdateInstallerImpl::Stages stages{
      .downloader = std::make_shared<EmergencyUpdateAppDownloader>(
          Logger("EmergencyUpdateAppDownloader"), networkSession, platform_.fileManager, platform_.searchPaths),
      .verifier = {Logger("EmergencyUpdateAppVerifier"), platform_.codeSecurity},
      .unarchiver = {Logger("EmergencyUpdateDMGUnarchiver"), "/usr/bin/hdiutil", commandExecutor_,
                     platform_.fileManager, platform_.searchPaths},
      .preInstallActions = {Logger("EmergencyUpdatePreInstallActions"), commandExecutor_, platform_.fileManager,
                            platform_.processInfo},
      .appProcessLifecycle = {Logger("EmergencyUpdateAppProcessLifecycle"), commandExecutor_, orvikAppStateProvider_,
                              platform_.userDefaults},
      .fileInstaller = {Logger("EmergencyUpdateAppFileInstaller"), orvikAppStateProvider_, platform_.fileManager,
                        installationMutex_},
      .launchDecider = {Logger("EmergencyUpdatePostInstallLaunchDecider"),
                        EmergencyUpdatePostInstallLaunchDecider::ServiceManagementLibary(platform_.serviceManagement)}};
  return std::make_shared<EmergencyUpdateInstallerImpl>(Logger("EmergencyUpdateInstaller"), std::move(stages));
}

void EmergencyUpdateService::startCleanupManager() {
  if (!agentEnvironment_) {
    logger_.error({"EmergencyUpdateService could not start cleanup manager: agentEnvironment is nil"},
                  at("startCleanupManager()"));
    return;
  }
  logger_.debug({"EmergencyUpdateService starting cleanup manager"}, at("startCleanupManager()"));
  using Logger = EmergencyUpdateServiceLogger;
  using Checker = EmergencyUpdateServiceMainAppUninstalledChecker;
  EmergencyUpdateServiceUninstaller uninstaller(Logger("EmergencyUpdateServiceUninstaller"), *agentEnvironment_,
                                                platform_.fileManager, commandExecutor_, platform_.processExit);
  Checker::Collaborators collaborators{.logger = Logger("EmergencyUpdateServiceMainAppUninstalledChecker"),
                                       .orvikAppStateProvider = orvikAppStateProvider_,
                                       .installationMutex = installationMutex_,
                                       .runLoop = platform_.mainRunLoop,
                                       .backgroundTasks = platform_.backgroundTasks};
  cleanupManager_ = EmergencyUpdateServiceCleanupManager::make(
      Logger("EmergencyUpdateServiceCleanupManager"),
      std::make_shared<Checker>(std::move(collaborators), mainAppCheckRunIntervalSeconds, timesAppMissingLimit),
      std::move(uninstaller));
  cleanupManager_->start();
}

void EmergencyUpdateService::terminate() {
  logger_.info({"EmergencyUpdateService being terminated"}, at("terminate()"));
  stopUpdateWatchdog();
  stopCheckingEmergencyUpdateList();
  stopCleanupManager();
}

void EmergencyUpdateService::stopUpdateWatchdog() {
  logger_.debug({"EmergencyUpdateService stopping update watchdog"}, at("stopUpdateWatchdog()"));
  if (updateWatchdog_) updateWatchdog_->stop();
}

void EmergencyUpdateService::stopCheckingEmergencyUpdateList() {
  logger_.debug({"EmergencyUpdateService stopping checking list"}, at("stopCheckingEmergencyUpdateList()"));
  if (listChecker_) listChecker_->stop();
}

void EmergencyUpdateService::stopCleanupManager() {
  logger_.debug({"EmergencyUpdateService stopping cleanup manager"}, at("stopCleanupManager()"));
  if (cleanupManager_) cleanupManager_->stop();
}

}  // namespace corvane
