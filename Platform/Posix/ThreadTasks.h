#pragma once

#include "Platform/BackgroundTasks.h"

namespace platform::posix {

/// A thread for each task, gone with it: an idle process keeps none.
class ThreadTasks final : public BackgroundTasks {
 public:
  void start(Priority priority, std::move_only_function<void()> task) override;
};

}  // namespace platform::posix
