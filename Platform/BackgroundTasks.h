#pragma once

#include <functional>

namespace platform {

/// Starts unstructured asynchronous tasks off the main thread. A task may block for as long as it likes; tasks run side
/// by side and in no promised order. Any thread.
///
/// Priorities are a hint that this platform does not act on. When no thread can be had the task is dropped.
class BackgroundTasks {
 public:
  enum class Priority { background, unspecified };

  virtual ~BackgroundTasks() = default;
  virtual void start(Priority priority, std::move_only_function<void()> task) = 0;
};

}  // namespace platform
