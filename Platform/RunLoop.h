#pragma once

#include "Platform/Clock.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace platform {

class RunLoop;

/// A timer on a run loop. Main thread only. Dropping the handle does not stop the timer: the run loop keeps it until it
/// is invalidated or, when it does not repeat, has fired.
class Timer {
 public:
  virtual ~Timer() = default;

  /// Runs the action now. A repeating timer's schedule is left as it is; a one-shot timer is invalid afterwards. Does
  /// nothing on an invalid timer, or from inside the timer's own action.
  virtual void fire() = 0;

  /// The action never runs again; safe from inside it.
  virtual void invalidate() = 0;

  [[nodiscard]] virtual bool isValid() const = 0;
};

/// The main run loop: timers. It decides what runs when; who waits in between is the application's business (or a
/// test's, which moves the clock instead). Main thread only.
///
/// Timers are kept on Clock::uptime(). Those due run in the order of their fire times, equal ones in the order of their
/// registration. A repeating timer keeps its phase: it next fires at the first multiple of its interval strictly after
/// its action returned, so late or missed firings collapse into one. No modes: every timer is in the common ones.
class RunLoop {
 public:
  using Action = std::move_only_function<void()>;
  enum class Repeats { no, yes };

  explicit RunLoop(const Clock& clock);
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;
  ~RunLoop();

  /// First fires `interval` seconds from now. An interval of 0 or less counts as 0.1 ms.
  std::shared_ptr<Timer> scheduledTimer(TimeInterval interval, Repeats repeats, Action action);

  /// Runs every timer that is due now, each at most once.
  void runOnce();

  /// The uptime at which the next timer is due, in the past for one that is overdue; absent without timers.
  [[nodiscard]] std::optional<TimeInterval> nextFireTime() const;

 private:
  struct State;
  class LoopTimer;

  std::shared_ptr<State> state_;
};

}  // namespace platform
