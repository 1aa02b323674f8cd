#pragma once

#include "Environment/OrvikApp.h"
#include "Platform/DistributedNotificationCenter.h"
#include "Platform/RunLoop.h"
#include "UpdateWatchdog/ApplicationUpdateWatchdogTransitions.h"

#include <memory>

namespace corvane {

/// Follows the main application through its self-update by the notifications that it and its updater post, and reports
/// what tells of a failed one: above all an application that terminated for an update and was not launched again within
/// the timeout. It only observes.
///
/// Started once; stopped, it never observes again. Main thread only.
class ApplicationUpdateWatchdog {
 public:
  struct Collaborators {
    platform::DistributedNotificationCenter& notificationCenter;
    platform::RunLoop& runLoop;
    std::shared_ptr<const OrvikApp::StateProvider> orvikAppStateProvider;
    std::shared_ptr<ApplicationUpdateWatchdogTracker> tracker;
  };

  /// `updateObservationTimeout`, in seconds, is how long the relaunch after an update is awaited.
  ApplicationUpdateWatchdog(Collaborators collaborators, platform::TimeInterval updateObservationTimeout)
      : with_(std::move(collaborators)), updateObservationTimeout_(updateObservationTimeout) {}
  ApplicationUpdateWatchdog(const ApplicationUpdateWatchdog&) = delete;
  ApplicationUpdateWatchdog& operator=(const ApplicationUpdateWatchdog&) = delete;
  /// Ends the observation and the timer.
  ~ApplicationUpdateWatchdog();

  /// Takes the state from whether the application runs now, and observes. A second call, also after stop(), only
  /// reports that it is one.
  void start();

  /// Ends the observation. A timer that runs still expires, and that is still reported.
  void stop();

  /// One row of the transition table, by the notification's name; other names are ignored.
  void handleAppNotification(const platform::DistributedNotification& notification);

  [[nodiscard]] ObservingApplicationState applicationState() const { return applicationState_; }

 private:
  void apply(const ApplicationTransition& transition);
  void report(const ApplicationTransition::Report& report) const;
  void act(ApplicationTransition::Timer timer);
  void scheduleTimer();
  void cancelTimer();

  Collaborators with_;
  const platform::TimeInterval updateObservationTimeout_;
  std::shared_ptr<platform::Timer> timer_;
  ObservingApplicationState applicationState_ = ObservingApplicationState::unknown;
};

}  // namespace corvane
