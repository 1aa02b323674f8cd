#pragma once

#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/ChildProcess.h"
#include "Platform/ProcessInfo.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

/// What a child process left.
struct CommandExecutionResult {
  /// The exit status; the signal's number for a child that a signal ended; 127 for one that could not be started.
  std::int64_t status = 0;
  /// All it wrote, when that was captured and is UTF-8; absent when it wrote nothing.
  std::optional<std::string> output;
  std::optional<std::string> errorOutput;

  /// Writes one `error` record with the caller's logger when the status is not 0; never the outputs. `purpose` names
  /// the command ("touch").
  void logIfFailed(const EmergencyUpdateServiceLogger& logger, std::string_view purpose) const;
};

enum class CaptureOutput { no, yes };

/// Runs system tools. Any thread; execute() blocks it for the child's whole lifetime.
class CommandExecutor {
 public:
  virtual ~CommandExecutor() = default;

  /// `launchPath` is the absolute path of the executable, `arguments` its words without the program name. Scripts run
  /// as "/bin/bash" with "-c". Never fails: a child that cannot be started gives a failure status at once.
  virtual CommandExecutionResult execute(CaptureOutput captureOutput, const std::string& launchPath,
                                         const std::vector<std::string>& arguments) = 0;
};

/// The outputs are drained while the child runs, so it may write any amount; before system version 10.15.4 they are
/// absent.
class CommandExecutorImpl final : public CommandExecutor {
 public:
  CommandExecutorImpl(platform::ChildProcessLauncher& childProcesses, const platform::ProcessInfo& processInfo)
      : childProcesses_(childProcesses), processInfo_(processInfo) {}

  CommandExecutionResult execute(CaptureOutput captureOutput, const std::string& launchPath,
                                 const std::vector<std::string>& arguments) override;

 private:
  platform::ChildProcessLauncher& childProcesses_;
  const platform::ProcessInfo& processInfo_;
};

}  // namespace corvane
