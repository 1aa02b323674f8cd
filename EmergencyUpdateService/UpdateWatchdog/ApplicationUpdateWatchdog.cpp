#include "UpdateWatchdog/ApplicationUpdateWatchdog.h"

namespace corvane {

using Kind = ApplicationUpdateWatchdogEvent::Kind;

ApplicationUpdateWatchdog::~ApplicationUpdateWatchdog() {
  stop();
  cancelTimer();
}

void ApplicationUpdateWatchdog::start() {
  const bool isRunning = !with_.orvikAppStateProvider->runningApplications().empty();
  const std::string_view running = isRunning ? "running" : "not running";
  with_.tracker->track({.kind = Kind::info, .message = {"Starting Watchdog. Orvik is currently {}", running}});
  if (applicationState_ != ObservingApplicationState::unknown) {
    with_.tracker->track({.kind = Kind::error, .message = {"Attempt to start Watchdog while it is already running"}});
    return;
  }
  applicationState_ = isRunning ? ObservingApplicationState::launched : ObservingApplicationState::terminated;
  with_.notificationCenter.removeObserver(this);
  for (const std::string_view name : applicationNotificationNames) {
    with_.notificationCenter.addObserver(
        this, name, platform::DistributedNotificationCenter::SuspensionBehavior::deliverImmediately,
        [this](const platform::DistributedNotification& notification) { handleAppNotification(notification); });
  }
}

void ApplicationUpdateWatchdog::stop() {
  with_.notificationCenter.removeObserver(this);
}

void ApplicationUpdateWatchdog::handleAppNotification(const platform::DistributedNotification& notification) {
  const auto* const name = std::ranges::find(applicationNotificationNames, notification.name);
  if (name == applicationNotificationNames.end()) return;
  const auto index = name - applicationNotificationNames.begin();
  apply(applicationTransition(applicationState_, static_cast<ApplicationNotification>(index)));
}

void ApplicationUpdateWatchdog::apply(const ApplicationTransition& transition) {
  report(transition.report);
  act(transition.timer);
  applicationState_ = transition.to;
}

void ApplicationUpdateWatchdog::report(const ApplicationTransition::Report& report) const {
  if (const auto* text = std::get_if<ApplicationTransition::Literal>(&report.message)) {
    with_.tracker->track({.kind = report.kind, .message = {*text}});
  } else if (const auto* pattern = std::get_if<ApplicationTransition::WithVersion>(&report.message)) {
    const std::string version = with_.orvikAppStateProvider->bundleVersion().value_or("");
    with_.tracker->track({.kind = report.kind, .message = {*pattern, version}});
  }
}

void ApplicationUpdateWatchdog::act(ApplicationTransition::Timer timer) {
  switch (timer) {
    case ApplicationTransition::Timer::unchanged:
      break;
    case ApplicationTransition::Timer::schedule:
      scheduleTimer();
      break;
    case ApplicationTransition::Timer::cancel:
      cancelTimer();
      break;
  }
}

void ApplicationUpdateWatchdog::scheduleTimer() {
  cancelTimer();
  // The destructor ends the timer, so it never meets a watchdog that is gone.
  timer_ = with_.runLoop.scheduledTimer(updateObservationTimeout_, platform::RunLoop::Repeats::no, [this] {
    with_.tracker->track({.kind = Kind::error, .message = {"App was not launched after update installation"}});
    cancelTimer();
  });
}

void ApplicationUpdateWatchdog::cancelTimer() {
  if (timer_) timer_->invalidate();
  timer_.reset();
}

}  // namespace corvane
