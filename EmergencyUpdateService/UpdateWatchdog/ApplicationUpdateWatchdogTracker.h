#pragma once

#include "Logging/EmergencyUpdateServiceLogger.h"

namespace corvane {

/// An observation of the update watchdog. Refers to its message, so it lives no longer than the call it is handed to.
struct ApplicationUpdateWatchdogEvent {
  enum class Kind { info, warning, error };

  Kind kind;
  const EmergencyUpdateServiceLogger::Message& message;
};

/// Receives what the watchdog has to report. Main thread.
class ApplicationUpdateWatchdogTracker {
 public:
  virtual ~ApplicationUpdateWatchdogTracker() = default;
  virtual void track(const ApplicationUpdateWatchdogEvent& event) = 0;
};

/// Makes each event a record: `info` at level `trace`, which no destination keeps, the others at their own level.
class ApplicationUpdateWatchdogTrackerImpl final : public ApplicationUpdateWatchdogTracker {
 public:
  explicit ApplicationUpdateWatchdogTrackerImpl(EmergencyUpdateServiceLogger logger) : logger_(logger) {}
  void track(const ApplicationUpdateWatchdogEvent& event) override;

 private:
  EmergencyUpdateServiceLogger logger_;
};

}  // namespace corvane
