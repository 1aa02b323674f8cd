#pragma once

#include "Cleanup/EmergencyUpdateServiceCleanupManager.h"
#include "CommandLine/CommandExecutor.h"
#include "EmergencyUpdateList/EmergencyUpdateListChecker.h"
#include "Environment/EmergencyUpdateServiceAgentEnvironment.h"
#include "Environment/EmergencyUpdateServiceBackendEnvironment.h"
#include "Environment/EmergencyUpdateServiceOverrides.h"
#include "Environment/EmergencyUpdateServiceRuntimeEnvironment.h"
#include "Environment/OrvikApp.h"
#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/Host.h"
#include "UpdateWatchdog/ApplicationUpdateWatchdog.h"

#include <memory>
#include <optional>

namespace corvane {

/// The composition root: builds every component with its constants, owns them for the process lifetime, and starts and
/// stops the long-running activities. The one place that names implementations. Main thread only; nothing here fails:
/// what cannot be started is skipped with an `error` record.
class EmergencyUpdateService {
 public:
  /// Builds nothing and starts nothing yet. The facilities must outlive the service.
  explicit EmergencyUpdateService(const platform::Facilities& platform);

  /// Once per process: environments, logging, agent identifier, then the activities. A second call only leaves a
  /// `trace` record.
  void launch();

  /// Stops the activities; what they have begun off the main thread goes on.
  void terminate();

 private:
  void startUpdateWatchdog();
  void startCheckingEmergencyUpdateList();
  void startCleanupManager();
  void stopUpdateWatchdog();
  void stopCheckingEmergencyUpdateList();
  void stopCleanupManager();

  void resolveEnvironments();
  void configureLogging();
  [[nodiscard]] platform::TimeInterval checkIntervalSeconds() const;
  [[nodiscard]] std::shared_ptr<EmergencyUpdateInstaller> makeInstaller() const;

  const platform::Facilities& platform_;
  const EmergencyUpdateServiceLogger logger_{"EmergencyUpdateService"};
  const std::shared_ptr<const OrvikApp::StateProvider> orvikAppStateProvider_;
  const std::shared_ptr<CommandExecutor> commandExecutor_;
  const std::shared_ptr<OrvikApp::InstallationMutex> installationMutex_;
  std::shared_ptr<EmergencyUpdateListChecker> listChecker_;
  std::unique_ptr<ApplicationUpdateWatchdog> updateWatchdog_;
  std::shared_ptr<EmergencyUpdateServiceCleanupManager> cleanupManager_;
  std::optional<EmergencyUpdateServiceBackendEnvironment> backendEnvironment_;
  std::optional<EmergencyUpdateServiceRuntimeEnvironment> runtimeEnvironment_;
  std::optional<EmergencyUpdateServiceAgentEnvironment> agentEnvironment_;
  std::optional<EmergencyUpdateServiceOverrides> overrides_;
  bool hasLaunched_ = false;
};

}  // namespace corvane
