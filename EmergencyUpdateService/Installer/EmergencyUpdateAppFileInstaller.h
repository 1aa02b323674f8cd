#pragma once

#include "Environment/OrvikApp.h"
#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/FileManager.h"
#include "Platform/URL.h"

#include <memory>
#include <optional>

namespace corvane {

/// Replaces the installed main application. Its place is asked for each time. Blocks for the removal and the copy.
class EmergencyUpdateAppFileInstaller {
 public:
  EmergencyUpdateAppFileInstaller(EmergencyUpdateServiceLogger logger,
                                  std::shared_ptr<const OrvikApp::StateProvider> appStateProvider,
                                  platform::FileManager& fileManager,
                                  std::shared_ptr<OrvikApp::InstallationMutex> installationMutex)
      : logger_(logger),
        appStateProvider_(std::move(appStateProvider)),
        fileManager_(fileManager),
        installationMutex_(std::move(installationMutex)) {}

  /// Whether this process may write the installed bundle itself.
  [[nodiscard]] bool isAbleToReplaceAppFiles() const;

  /// Removes the installed bundle and copies this one into its place; the installed location, or absent after an
  /// `error` record. There is no way back: a failure may leave the application missing or partly copied. Nobody judges
  /// meanwhile that the application is gone.
  [[nodiscard]] std::optional<platform::URL> replaceAppFiles(const platform::URL& withContentsFrom) const;

 private:
  [[nodiscard]] bool removeAppFiles(const platform::URL& destination) const;

  EmergencyUpdateServiceLogger logger_;
  std::shared_ptr<const OrvikApp::StateProvider> appStateProvider_;
  platform::FileManager& fileManager_;
  std::shared_ptr<OrvikApp::InstallationMutex> installationMutex_;
};

}  // namespace corvane
