#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform {

/// What became of a child process.
struct ChildProcessResult {
  enum class Reason { exit, uncaughtSignal, notStarted };

  Reason reason = Reason::notStarted;
  /// The exit status, the number of the signal that ended it, or 127 for a child that could not be started.
  std::int32_t status = 127;
  /// Everything the child wrote; absent when not captured, or when it wrote nothing.
  std::optional<std::string> standardOutput;
  std::optional<std::string> standardError;
};

/// Runs child processes. Any thread, several at once; run() blocks its thread until the child has exited.
///
/// The child inherits environment and working directory, gets descriptors 0 to 2 only, a process group of its own and
/// default signal handling. Captured pipes are drained while it runs, so a child may write any amount; what a
/// grandchild that outlives it still writes is not waited for.
class ChildProcessLauncher {
 public:
  enum class Capture { no, yes };

  virtual ~ChildProcessLauncher() = default;
  virtual ChildProcessResult run(const std::string& launchPath, const std::vector<std::string>& arguments,
                                 Capture capture) = 0;
};

}  // namespace platform
