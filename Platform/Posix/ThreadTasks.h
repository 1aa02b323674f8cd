#pragma once

#include "Platform/BackgroundTasks.h"

namespace platform::posix {

/// Runs the task on a thread of its own, with all signals blocked: they are the main thread's. False, the task not run,
/// when no thread can be had.
bool startThread(std::function<void()> task);

/// A thread for each task, gone with it: an idle process keeps none.
class ThreadTasks final : public BackgroundTasks {
 public:
  void start(Priority priority, std::move_only_function<void()> task) override;
};

}  // namespace platform::posix
