#include "Posix/ThreadSerialQueue.h"

#include "Posix/ThreadTasks.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

#include <pthread.h>

namespace platform::posix {
namespace {

constexpr std::chrono::seconds linger{2};
constexpr std::size_t longestThreadName = 15;

/// The queue itself, shared with its thread.
class QueueState : public std::enable_shared_from_this<QueueState> {
 public:
  explicit QueueState(const std::string& label)
      : threadName_(label.substr(label.rfind('.') + 1).substr(0, longestThreadName)) {}

  void append(SerialQueue::Action action) {
    std::unique_lock lock(mutex_);
    actions_.push_back(std::move(action));
    runIfPossible(std::move(lock));
  }

  void suspend(int by) {
    std::unique_lock lock(mutex_);
    suspensions_ += by;
    runIfPossible(std::move(lock));
  }

 private:
  enum class Worker { none, running, waiting };

  /// Not while the worker runs actions: `taken_` is its own then.
  [[nodiscard]] bool hasWork() const { return !(actions_.empty() && taken_.empty()) && suspensions_ <= 0; }

  void runIfPossible(std::unique_lock<std::mutex> lock) {
    if (worker_ == Worker::running || !hasWork()) return;
    const bool wasWaiting = worker_ == Worker::waiting;
    worker_ = Worker::running;
    lock.unlock();
    if (wasWaiting) {
      wake_.notify_one();
    } else if (!startThread([self = shared_from_this()] { self->work(); })) {
      lock.lock();
      worker_ = Worker::none;
    }
  }

  void work() {
    pthread_setname_np(pthread_self(), threadName_.c_str());
    std::unique_lock lock(mutex_);
    do {
      runActions(lock);
      worker_ = Worker::waiting;
    } while (wake_.wait_for(lock, linger, [&] { return worker_ == Worker::running; }));
    worker_ = Worker::none;
  }

  /// Takes all there is at once: those who append to a busy queue seldom meet the worker at the lock.
  void runActions(std::unique_lock<std::mutex>& lock) {
    while (hasWork()) {
      if (taken_.empty()) taken_.swap(actions_);
      lock.unlock();
      while (!taken_.empty() && suspensions_ <= 0) {
        taken_.front()();
        taken_.pop_front();  // what it holds goes before the next one begins
      }
      lock.lock();
    }
  }

  const std::string threadName_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<SerialQueue::Action> actions_;
  std::deque<SerialQueue::Action> taken_;  // the next to run, before actions_
  std::atomic<int> suspensions_ = 0;       // written under the lock
  Worker worker_ = Worker::none;
};

class ThreadSerialQueue final : public SerialQueue {
 public:
  explicit ThreadSerialQueue(const std::string& label) : state_(std::make_shared<QueueState>(label)) {}

  void async(Action action) override { state_->append(std::move(action)); }
  void suspend() override { state_->suspend(1); }
  void resume() override { state_->suspend(-1); }

 private:
  std::shared_ptr<QueueState> state_;
};

}  // namespace

std::shared_ptr<SerialQueue> ThreadSerialQueues::serialQueue(const std::string& label) {
  return std::make_shared<ThreadSerialQueue>(label);
}

}  // namespace platform::posix
