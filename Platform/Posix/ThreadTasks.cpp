#include "Posix/ThreadTasks.h"

#include <csignal>
#include <memory>
#include <system_error>
#include <thread>

namespace platform::posix {
namespace {

/// Signals are the main thread's: for the lifetime of this object the calling thread, and so a thread it starts, has
/// all of them blocked.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_{};
};

}  // namespace

bool startThread(std::function<void()> task) {
  const SignalsBlocked blocked;
  try {
    std::thread(std::move(task)).detach();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void ThreadTasks::start(Priority /*priority*/, std::move_only_function<void()> task) {
  startThread([shared = std::make_shared<std::move_only_function<void()>>(std::move(task))] { (*shared)(); });
}

}  // namespace platform::posix
