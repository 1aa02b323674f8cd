#pragma once

#include "CommandLine/CommandExecutor.h"
#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/FileManager.h"
#include "Platform/ProcessInfo.h"
#include "Platform/URL.h"

#include <memory>

namespace corvane {

/// Prepares the unpacked application with system tools. Each action is best effort: a command that fails leaves one
/// record.
class EmergencyUpdatePreInstallActions {
 public:
  EmergencyUpdatePreInstallActions(EmergencyUpdateServiceLogger logger,
                                   std::shared_ptr<CommandExecutor> commandExecutor,
                                   const platform::FileManager& fileManager, const platform::ProcessInfo& processInfo)
      : logger_(logger),
        commandExecutor_(std::move(commandExecutor)),
        fileManager_(fileManager),
        processInfo_(processInfo) {}

  /// Strips the quarantine attribute from the bundle and everything in it.
  void removeQuarantine(const platform::URL& appAt) const;
  void touch(const platform::URL& appAt) const;
  /// From system version 14.4.0, where the tool exists; otherwise nothing, and no record.
  void scanWithGatekeeper(const platform::URL& appAt) const;

 private:
  EmergencyUpdateServiceLogger logger_;
  std::shared_ptr<CommandExecutor> commandExecutor_;
  const platform::FileManager& fileManager_;
  const platform::ProcessInfo& processInfo_;
};

}  // namespace corvane
