#pragma once

#include "Cleanup/EmergencyUpdateServiceMainAppUninstalledChecker.h"
#include "Cleanup/EmergencyUpdateServiceUninstaller.h"
#include "Logging/EmergencyUpdateServiceLogger.h"

#include <memory>

namespace corvane {

/// Removes the agent once its checker has found the main application gone. start() and stop() belong to the main
/// thread.
class EmergencyUpdateServiceCleanupManager final : public EmergencyUpdateServiceMainAppUninstalledChecker::Delegate {
 public:
  using Checker = EmergencyUpdateServiceMainAppUninstalledChecker;

  /// A manager that is its checker's delegate; the checker does not keep it alive.
  static std::shared_ptr<EmergencyUpdateServiceCleanupManager> make(EmergencyUpdateServiceLogger logger,
                                                                    std::shared_ptr<Checker> mainAppChecker,
                                                                    EmergencyUpdateServiceUninstaller uninstaller);

  void start() { mainAppChecker_->start(); }
  void stop() { mainAppChecker_->stop(); }

  /// Logs the decision and ends with the process.
  void didDetectAppUninstalled() override;

 private:
  EmergencyUpdateServiceCleanupManager(EmergencyUpdateServiceLogger logger, std::shared_ptr<Checker> mainAppChecker,
                                       EmergencyUpdateServiceUninstaller uninstaller)
      : logger_(logger), mainAppChecker_(std::move(mainAppChecker)), uninstaller_(std::move(uninstaller)) {}

  const EmergencyUpdateServiceLogger logger_;
  const std::shared_ptr<Checker> mainAppChecker_;
  const EmergencyUpdateServiceUninstaller uninstaller_;
};

}  // namespace corvane
