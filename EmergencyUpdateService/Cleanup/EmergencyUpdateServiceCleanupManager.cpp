#include "Cleanup/EmergencyUpdateServiceCleanupManager.h"

namespace corvane {

std::shared_ptr<EmergencyUpdateServiceCleanupManager> EmergencyUpdateServiceCleanupManager::make(
    EmergencyUpdateServiceLogger logger, std::shared_ptr<Checker> mainAppChecker,
    EmergencyUpdateServiceUninstaller uninstaller) {
  std::shared_ptr<EmergencyUpdateServiceCleanupManager> manager(
      new EmergencyUpdateServiceCleanupManager(logger, std::move(mainAppChecker), std::move(uninstaller)));
  manager->mainAppChecker_->setDelegate(manager);
  return manager;
}

void EmergencyUpdateServiceCleanupManager::didDetectAppUninstalled() {
  logger_.warn({"Main app was detected missing, uninstalling emergency update service"},
               at("didDetectAppUninstalled()"));
  uninstaller_.uninstall();
}

}  // namespace corvane
