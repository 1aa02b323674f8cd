#pragma once

#include "CommandLine/CommandExecutor.h"
#include "Environment/OrvikApp.h"
#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/URL.h"
#include "Platform/UserDefaults.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace corvane {

/// Asks the main application to quit, waits until it has, and starts it again. Waiting and starting are small bash
/// scripts whose results are not examined; this component writes no records. Blocks the calling thread.
///
/// Decided here: the application is only ever asked, never killed, and the wait has no limit, since unsaved work
/// outranks the update. A wait that goes on keeps nothing busy but the check it belongs to; later checks are skipped
/// meanwhile.
class EmergencyUpdateAppProcessLifecycle {
 public:
  EmergencyUpdateAppProcessLifecycle(EmergencyUpdateServiceLogger logger,
                                     std::shared_ptr<CommandExecutor> commandExecutor,
                                     std::shared_ptr<const OrvikApp::StateProvider> appStateProvider,
                                     platform::UserDefaultsDomains& userDefaults)
      : logger_(logger),
        commandExecutor_(std::move(commandExecutor)),
        appStateProvider_(std::move(appStateProvider)),
        userDefaults_(userDefaults) {}

  /// Sends every running instance the polite request, after noting in the application's own preferences that this is a
  /// normal termination. The identifiers of those asked, in their order; none when none was running.
  [[nodiscard]] std::vector<std::int64_t> terminateRunningApps() const;

  /// Returns when each process with an identifier of 1 or more has gone.
  void waitForTermination(const std::vector<std::int64_t>& of) const;

  /// Tries for some ten seconds to open the bundle. A single quote in its path is quoted for the shell.
  void launchApp(const platform::URL& at) const;

 private:
  void run(const std::string& script) const;

  [[maybe_unused]] EmergencyUpdateServiceLogger logger_;
  std::shared_ptr<CommandExecutor> commandExecutor_;
  std::shared_ptr<const OrvikApp::StateProvider> appStateProvider_;
  platform::UserDefaultsDomains& userDefaults_;
};

}  // namespace corvane
