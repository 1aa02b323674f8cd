#pragma once

#include "Platform/Application.h"
#include "Platform/RunLoop.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

namespace platform::posix {

/// Waits for whatever comes next (a timer, SIGTERM or SIGINT, a descriptor that a facility
/// watches through `io()`) and sleeps in between: nothing wakes the process up without a cause.
class PosixApplication final : public Application {
 public:
  explicit PosixApplication(const Clock& clock);

  RunLoop& mainRunLoop() { return mainRunLoop_; }
  asio::io_context& io() { return io_; }

  void setDelegate(ApplicationDelegate& delegate) override { delegate_ = &delegate; }
  [[noreturn]] void run() override;
  [[noreturn]] void terminate() override;

 private:
  void wait();
  void setAlarm(std::optional<TimeInterval> uptime);

  const Clock& clock_;
  asio::io_context io_{1};
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning_ = asio::make_work_guard(io_);
  asio::signal_set quitSignals_;
  RunLoop mainRunLoop_;
  asio::steady_timer alarm_{io_};
  std::optional<TimeInterval> alarmTime_;  // uptime; absent when no alarm is set
  ApplicationDelegate* delegate_ = nullptr;
};

}  // namespace platform::posix
