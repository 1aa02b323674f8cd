#pragma once

#include <functional>
#include <memory>
#include <string>

namespace platform {

/// Runs actions one at a time, in the order in which they were handed over, not on any particular thread; what one
/// action wrote the next one sees. Unbounded. Any thread.
class SerialQueue {
 public:
  using Action = std::move_only_function<void()>;

  virtual ~SerialQueue() = default;

  /// Only hands over; never waits for an action.
  virtual void async(Action action) = 0;

  /// Counted: no action begins while the queue was suspended more often than resumed. Unlike the Mac's, a resume() may
  /// come before the suspend() it belongs to, so two threads need not agree on who is first.
  virtual void suspend() = 0;
  virtual void resume() = 0;
};

/// Makes queues.
class SerialQueues {
 public:
  virtual ~SerialQueues() = default;
  /// The label, in reverse domain name style, is for people who look at the process.
  virtual std::shared_ptr<SerialQueue> serialQueue(const std::string& label) = 0;
};

}  // namespace platform
