#include "AppDelegate.h"
#include "Platform/Host.h"

#include <csignal>
#include <thread>
#include <vector>

namespace {

/// Moves by hand. The network keeps the real time.
class HurriedClock final : public platform::Clock {
 public:
  [[nodiscard]] platform::TimeInterval uptime() const override { return uptime_; }
  [[nodiscard]] platform::TimeInterval date() const override { return uptime_; }
  void advance(platform::TimeInterval seconds) { uptime_ += seconds; }

 private:
  platform::TimeInterval uptime_ = 1;
};

/// A thread a task, as the agent has it, that can be waited for.
class AwaitedTasks final : public platform::BackgroundTasks {
 public:
  void start(Priority /*priority*/, std::move_only_function<void()> task) override {
    threads_.emplace_back(std::move(task));
  }
  void wait() { threads_.clear(); }

 private:
  std::vector<std::jthread> threads_;
};

/// The machine's facilities, but for those that wait.
class HurriedMac {
 public:
  explicit HurriedMac(const platform::Facilities& real)
      : facilities_{.clock = clock_,
                    .mainRunLoop = runLoop_,
                    .backgroundTasks = tasks_,
                    .serialQueues = real.serialQueues,
                    .mainBundle = real.mainBundle,
                    .processInfo = real.processInfo,
                    .userDefaults = real.userDefaults,
                    .fileManager = real.fileManager,
                    .searchPaths = real.searchPaths,
                    .urlContents = real.urlContents,
                    .urlSessions = real.urlSessions,
                    .workspace = real.workspace,
                    .childProcesses = real.childProcesses,
                    .codeSecurity = real.codeSecurity,
                    .serviceManagement = real.serviceManagement,
                    .distributedNotificationCenter = real.distributedNotificationCenter,
                    .processExit = real.processExit,
                    .systemLog = real.systemLog} {}

  [[nodiscard]] const platform::Facilities& facilities() const { return facilities_; }

  /// Lets time pass and waits for all that is done then.
  void pass(platform::TimeInterval seconds) {
    clock_.advance(seconds);
    runLoop_.runOnce();
    tasks_.wait();
  }

 private:
  HurriedClock clock_;
  platform::RunLoop runLoop_{clock_};
  AwaitedTasks tasks_;
  platform::Facilities facilities_;
};

}  // namespace

/// The agent with all that belongs to it, but for the clock: each time four hours pass at once, and all that becomes
/// due is done. SIGUSR1 brings in its value how many times.
int main() {
  constexpr platform::TimeInterval checkInterval = 14400;
  sigset_t order;
  sigemptyset(&order);
  sigaddset(&order, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &order, nullptr);
  const auto host = platform::makeHost();
  HurriedMac mac(host->facilities());
  corvane::AppDelegate delegate(mac.facilities());
  delegate.applicationDidFinishLaunching();
  mac.pass(0);
  siginfo_t ordered{};
  while (sigwaitinfo(&order, &ordered) >= 0) {
    for (int i = 0; i < ordered.si_value.sival_int; ++i) mac.pass(checkInterval);
  }
  return 1;
}
