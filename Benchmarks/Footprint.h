#pragma once

#include <cstdint>
#include <optional>

#include <sys/types.h>

namespace benchmarks {

/// What a process holds right now. Memory in bytes, as /proc/PID/smaps_rollup has it.
struct Footprint {
  std::uint64_t resident = 0;
  std::uint64_t proportional = 0;
  std::uint64_t privateDirty = 0;
  std::uint64_t threads = 0;
  std::uint64_t descriptors = 0;
};
Footprint footprintOf(pid_t process);

/// The most memory it ever had resident, in bytes.
std::uint64_t peakOf(pid_t process);

/// Seconds on a processor so far, those of threads that have ended included.
double processorTimeOf(pid_t process);

/// Counts how often the threads that a process of one thread has from now on are taken off a processor: each time
/// something woke them before.
class ContextSwitches {
 public:
  explicit ContextSwitches(pid_t process);
  ContextSwitches(const ContextSwitches&) = delete;
  ContextSwitches& operator=(const ContextSwitches&) = delete;
  ~ContextSwitches();

  /// Absent where the kernel does not let this user count.
  [[nodiscard]] std::optional<std::uint64_t> count() const;

 private:
  int descriptor_;
};

}  // namespace benchmarks
