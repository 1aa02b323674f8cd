#pragma once

#include "EmergencyUpdateList/EmergencyUpdateInstaller.h"
#include "Installer/EmergencyUpdateAppDownloader.h"
#include "Installer/EmergencyUpdateAppFileInstaller.h"
#include "Installer/EmergencyUpdateAppProcessLifecycle.h"
#include "Installer/EmergencyUpdateAppVerifier.h"
#include "Installer/EmergencyUpdateDMGUnarchiver.h"
#include "Installer/EmergencyUpdatePostInstallLaunchDecider.h"
#include "Installer/EmergencyUpdatePreInstallActions.h"
#include "Logging/EmergencyUpdateServiceLogger.h"

#include <memory>

namespace corvane {

/// The install pipeline: sequences the stages, stops at the first that fails, logs each, and sees to it that the
/// unpacked copy is cleaned up once there is one. Nothing is retried or rolled back here; how an install went is in the
/// log alone. Blocks the calling thread for minutes; keeps nothing between calls; must not be entered twice at once.
class EmergencyUpdateInstallerImpl final : public EmergencyUpdateInstaller {
 public:
  struct Stages {
    std::shared_ptr<EmergencyUpdateAppDownloader> downloader;
    EmergencyUpdateAppVerifier verifier;
    EmergencyUpdateDMGUnarchiver unarchiver;
    EmergencyUpdatePreInstallActions preInstallActions;
    EmergencyUpdateAppProcessLifecycle appProcessLifecycle;
    EmergencyUpdateAppFileInstaller fileInstaller;
    EmergencyUpdatePostInstallLaunchDecider launchDecider;
  };

  EmergencyUpdateInstallerImpl(EmergencyUpdateServiceLogger logger, Stages stages)
      : logger_(logger), stages_(std::move(stages)) {}

  void install(const platform::URL& from, const std::string& initiallyInstalledBundleVersion) override;

 private:
  [[nodiscard]] std::optional<platform::URL> downloadAndVerify(const platform::URL& from);
  void replaceAndRelaunch(const platform::URL& app, const std::string& initiallyInstalledBundleVersion);
  void prepare(const platform::URL& app) const;
  [[nodiscard]] std::vector<std::int64_t> terminateApp() const;
  void act(const EmergencyUpdatePostInstallLaunchDecider::Decision& decision, const platform::URL& installedApp) const;

  EmergencyUpdateServiceLogger logger_;
  Stages stages_;
};

}  // namespace corvane
