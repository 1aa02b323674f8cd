#pragma once

namespace platform {

/// Durations and points in time are double-precision seconds.
using TimeInterval = double;

/// The machine's two clocks. Any thread.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Seconds awake since some fixed moment. Never goes back, ignores changes of the wall clock and stands still while
  /// the machine sleeps: timers run on it.
  [[nodiscard]] virtual TimeInterval uptime() const = 0;

  /// Wall-clock seconds since 2001-01-01 00:00:00 UTC. May be set forward and back at any moment.
  [[nodiscard]] virtual TimeInterval date() const = 0;
};

}  // namespace platform
