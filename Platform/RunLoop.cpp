#include "Platform/RunLoop.h"

#include <cmath>
#include <cstdint>
#include <map>
#include <utility>

namespace platform {
namespace {

constexpr TimeInterval shortestInterval = 0.0001;

}  // namespace

/// Shared with the timers, which may outlive the loop.
struct RunLoop::State {
  using Key = std::pair<TimeInterval, std::uint64_t>;  // fire time, order of registration

  const Clock& clock;
  std::map<Key, std::shared_ptr<LoopTimer>> scheduled;
  std::uint64_t registrations = 0;
};

class RunLoop::LoopTimer final : public Timer {
 public:
  LoopTimer(std::weak_ptr<State> loop, std::uint64_t order, TimeInterval first, TimeInterval interval, Repeats repeats,
            Action action)
      : loop_(std::move(loop)),
        order_(order),
        first_(first),
        next_(first),
        interval_(interval),
        repeats_(repeats),
        action_(std::move(action)) {}

  void fire() override {
    if (!valid_ || running_) return;
    if (repeats_ == Repeats::no) unschedule();
    run();
    if (repeats_ == Repeats::no) invalidate();
  }

  void invalidate() override {
    if (!valid_) return;
    valid_ = false;
    unschedule();
    if (!running_) action_ = nullptr;  // what it captured may go; while it runs, only once it has returned
  }

  [[nodiscard]] bool isValid() const override { return valid_; }

  /// Called by the loop, which has just taken this timer off the schedule because it is due.
  static void fireDue(const std::shared_ptr<LoopTimer>& timer) {
    timer->run();
    if (timer->repeats_ == Repeats::no) timer->invalidate();
    if (!timer->valid_) return;
    if (const auto loop = timer->loop_.lock()) {
      const double periods = std::floor((loop->clock.uptime() - timer->first_) / timer->interval_) + 1;
      timer->next_ = timer->first_ + periods * timer->interval_;
      loop->scheduled.emplace(State::Key{timer->next_, timer->order_}, timer);
    }
  }

 private:
  void run() {
    running_ = true;
    action_();
    running_ = false;
    if (!valid_) action_ = nullptr;
  }

  void unschedule() {
    if (const auto loop = loop_.lock()) loop->scheduled.erase({next_, order_});
  }

  std::weak_ptr<State> loop_;
  std::uint64_t order_;
  TimeInterval first_;
  TimeInterval next_;
  TimeInterval interval_;
  Repeats repeats_;
  Action action_;
  bool valid_ = true;
  bool running_ = false;
};

RunLoop::RunLoop(const Clock& clock) : state_(std::make_shared<State>(clock)) {}

RunLoop::~RunLoop() = default;

std::shared_ptr<Timer> RunLoop::scheduledTimer(TimeInterval interval, Repeats repeats, Action action) {
  const TimeInterval period = interval > 0 ? interval : shortestInterval;
  const TimeInterval first = state_->clock.uptime() + period;
  const std::uint64_t order = state_->registrations++;
  auto timer = std::make_shared<LoopTimer>(state_, order, first, period, repeats, std::move(action));
  state_->scheduled.emplace(State::Key{first, order}, timer);
  return timer;
}

void RunLoop::runOnce() {
  const TimeInterval now = state_->clock.uptime();
  while (!state_->scheduled.empty() && state_->scheduled.begin()->first.first <= now) {
    auto due = state_->scheduled.extract(state_->scheduled.begin());
    LoopTimer::fireDue(due.mapped());
  }
}

std::optional<TimeInterval> RunLoop::nextFireTime() const {
  if (state_->scheduled.empty()) return std::nullopt;
  return state_->scheduled.begin()->first.first;
}

}  // namespace platform
