#include "UpdateWatchdog/ApplicationUpdateWatchdogTracker.h"

namespace corvane {
namespace {

LogLevel level(ApplicationUpdateWatchdogEvent::Kind kind) {
  switch (kind) {
    case ApplicationUpdateWatchdogEvent::Kind::info:
      return LogLevel::trace;
    case ApplicationUpdateWatchdogEvent::Kind::warning:
      return LogLevel::warn;
    case ApplicationUpdateWatchdogEvent::Kind::error:
      break;
  }
  return LogLevel::error;
}

}  // namespace

void ApplicationUpdateWatchdogTrackerImpl::track(const ApplicationUpdateWatchdogEvent& event) {
  logger_.log(level(event.kind), event.message, at("track(event:)"), {});
}

}  // namespace corvane
