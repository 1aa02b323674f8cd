#include "Posix/PosixApplication.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <system_error>

#include <asio/post.hpp>

namespace platform::posix {

PosixApplication::PosixApplication(const Clock& clock)
    : clock_(clock), quitSignals_(io_, SIGTERM, SIGINT), mainRunLoop_(clock, [this] { asio::post(io_, [] {}); }) {
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
  if (!next) {
    io_.run_one();
    return;
  }
  const std::chrono::duration<double> remaining(*next - clock_.uptime());
  if (remaining.count() > 0) {
    io_.run_one_for(std::chrono::ceil<std::chrono::nanoseconds>(remaining));
  } else {
    io_.poll_one();
  }
}

void PosixApplication::terminate() {
  if (delegate_ != nullptr) delegate_->applicationWillTerminate();
  // Background tasks may be running: no destructor of anything they use may run.
  std::_Exit(EXIT_SUCCESS);
}

}  // namespace platform::posix
