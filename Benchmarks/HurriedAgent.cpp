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

constexpr platform::TimeInterval checkInterval = 14400;

}  // namespace

/// The agent with all that belongs to it, but for the clock: each time four hours pass at once, and all that becomes
/// due is done. SIGUSR1 brings in its value how many times.
int main() {
  sigset_t order;
  sigemptyset(&order);
  sigaddset(&order, SIGUSR1);
  sigprocmask(SIG_BLOCK, &order, nullptr);
  const auto host = platform::makeHost();
  const platform::Facilities& real = host->facilities();
  HurriedClock clock;
  platform::RunLoop runLoop(clock);
  AwaitedTasks tasks;
  const platform::Facilities hurried{.clock = clock,
                                     .mainRunLoop = runLoop,
                                     .backgroundTasks = tasks,
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
                                     .systemLog = real.systemLog};
  corvane::AppDelegate delegate(hurried);
  delegate.applicationDidFinishLaunching();
  tasks.wait();
  while (true) {
    siginfo_t ordered{};
    if (sigwaitinfo(&order, &ordered) < 0) continue;
    for (int i = 0; i < ordered.si_value.sival_int; ++i) {
      clock.advance(checkInterval);
      runLoop.runOnce();
      tasks.wait();
    }
  }
}
