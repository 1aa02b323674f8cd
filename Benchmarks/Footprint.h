#pragma once

#include <cstdint>
#include <optional>

#include <sys/types.h>

namespace benchmarks {

/// What a process holds right now. Memory in bytes, as /proc has it.
struct Footprint {
  double resident = 0;
  double mostResident = 0;  // so far
  double proportional = 0;
  double privateDirty = 0;
  double threads = 0;
  double descriptors = 0;
};
Footprint footprintOf(pid_t process);

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
  int descriptor_ = -1;
};

}  // namespace benchmarks
