#include "Posix/PosixApplication.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace platform::posix {

PosixApplication::PosixApplication(const Clock& clock)
    : clock_(clock), quitSignals_(io_, SIGTERM, SIGINT), mainRunLoop_(clock) {
  quitSignals_.async_wait([this](const std::error_code& error, int) {
    if (!error) terminate();
  });
}

void PosixApplication::run() {
  if (delegate_ != nullptr) delegate_->applicationDidFinishLaunching();
  while (true) {
    mainRunLoop_.runOnce();
    wait();
  }
}

void PosixApplication::wait() {
  const auto next = mainRunLoop_.nextFireTime();
  if (next != alarmTime_) setAlarm(next);
  io_.run_one();  // not run_one_for(), which wakes up every second
}

void PosixApplication::setAlarm(std::optional<TimeInterval> uptime) {
  alarmTime_ = uptime;
  alarm_.cancel();
  if (!uptime) return;
  const std::chrono::duration<double> remaining(*uptime - clock_.uptime());
  alarm_.expires_after(std::chrono::ceil<std::chrono::nanoseconds>(remaining));
  alarm_.async_wait([this](const std::error_code& error) {
    if (!error) alarmTime_.reset();
  });
}

void PosixApplication::terminate() {
  if (delegate_ != nullptr) delegate_->applicationWillTerminate();
  // Background tasks may be running: no destructor of anything they use may run.
  std::_Exit(EXIT_SUCCESS);
}

}  // namespace platform::posix
