#pragma once

#include "CommandLine/CommandExecutor.h"
#include "Environment/EmergencyUpdateServiceAgentEnvironment.h"
#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/FileManager.h"
#include "Platform/ProcessExit.h"

#include <memory>
#include <optional>
#include <string_view>

namespace corvane {

/// Removes the agent from the machine: its launch-agent property list, its bundle, its launchd job, and last its
/// process. Just these; no link is followed out of them, and what is gone already is no failure. Any thread.
class EmergencyUpdateServiceUninstaller {
 public:
  EmergencyUpdateServiceUninstaller(EmergencyUpdateServiceLogger logger,
                                    EmergencyUpdateServiceAgentEnvironment agentEnvironment,
                                    platform::FileManager& fileManager,
                                    std::shared_ptr<CommandExecutor> commandExecutor,
                                    platform::ProcessExit& processExit)
      : logger_(logger),
        agentEnvironment_(std::move(agentEnvironment)),
        fileManager_(fileManager),
        commandExecutor_(std::move(commandExecutor)),
        processExit_(processExit) {}

  /// Takes every step whatever became of those before it, and always ends the process with status 0. Nothing is stopped
  /// first: whatever else is under way, an install included, ends with the process.
  void uninstall() const;

 private:
  void remove(const std::optional<platform::URL>& location, std::string_view tag) const;
  void bootOut() const;
  void terminateOwnProcess() const;

  EmergencyUpdateServiceLogger logger_;
  EmergencyUpdateServiceAgentEnvironment agentEnvironment_;
  platform::FileManager& fileManager_;
  std::shared_ptr<CommandExecutor> commandExecutor_;
  platform::ProcessExit& processExit_;
};

}  // namespace corvane
