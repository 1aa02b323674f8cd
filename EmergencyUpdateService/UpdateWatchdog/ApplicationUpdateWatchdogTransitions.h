#pragma once

#include "UpdateWatchdog/ApplicationUpdateWatchdogTracker.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <variant>

namespace corvane {

/// Where the watchdog believes the main application stands.
enum class ObservingApplicationState : std::uint8_t {
  unknown,        // nothing is observed yet
  launched,       // it runs
  terminated,     // it does not
  pendingUpdate,  // it runs, and its updater is about to install an update
  updating,       // it terminated for an update; its relaunch is awaited
};

/// What the main application and its updater announce.
enum class ApplicationNotification : std::uint8_t {
  applicationDidFinishLaunching,
  applicationWillTerminate,
  updateServiceWillInstallUpdate,
  updateServiceUpdateCompleted,
};

/// The names they announce it by, in the order of the enumeration.
inline constexpr std::array<std::string_view, 4> applicationNotificationNames = {
    "com.corvane.ProjectOrvik.applicationDidFinishLaunching",
    "com.corvane.ProjectOrvik.applicationWillTerminate",
    "com.corvane.ProjectOrvik.updateServiceWillInstallUpdate",
    "com.corvane.ProjectOrvik.updateServiceUpdateCompleted",
};

/// What one notification means in one state. The report is made first, then the timer is acted on, then the state
/// changes.
struct ApplicationTransition {
  using Literal = EmergencyUpdateServiceLogger::Message::Pattern<0>;
  using WithVersion = EmergencyUpdateServiceLogger::Message::Pattern<1>;  // the hole is the installed bundle version

  struct Report {
    std::variant<std::monostate, Literal, WithVersion> message;
    ApplicationUpdateWatchdogEvent::Kind kind = ApplicationUpdateWatchdogEvent::Kind::info;
  };
  enum class Timer : std::uint8_t { unchanged, schedule, cancel };

  ObservingApplicationState from;
  ApplicationNotification on;
  Report report;
  Timer timer;
  ObservingApplicationState to;
};

namespace transitions {

using State = ObservingApplicationState;
using Report = ApplicationTransition::Report;
using enum ObservingApplicationState;
using enum ApplicationNotification;
using enum ApplicationTransition::Timer;
using Kind = ApplicationUpdateWatchdogEvent::Kind;
using Text = ApplicationTransition::Literal;
using VersionText = ApplicationTransition::WithVersion;

inline constexpr Report nothing;
consteval Report info(Text text) {
  return {.message = text, .kind = Kind::info};
}
consteval Report warning(Text text) {
  return {.message = text, .kind = Kind::warning};
}
consteval Report error(Text text) {
  return {.message = text, .kind = Kind::error};
}
consteval Report versionWarning(VersionText text) {
  return {.message = text, .kind = Kind::warning};
}
consteval Report versionError(VersionText text) {
  return {.message = text, .kind = Kind::error};
}

/// The one path that is expected: launched, pendingUpdate, updating (the timer runs), launched, completed.
// clang-format off
inline constexpr auto table = std::to_array<ApplicationTransition>({
    {unknown, applicationDidFinishLaunching, nothing, unchanged, launched},
    {launched, applicationDidFinishLaunching, versionWarning("App was already 'launched', possible version {} crash or force termination"), unchanged, launched},
    {terminated, applicationDidFinishLaunching, nothing, unchanged, launched},
    {pendingUpdate, applicationDidFinishLaunching, versionError("App was pending update, possible version {} crash"), unchanged, pendingUpdate},
    {updating, applicationDidFinishLaunching, nothing, cancel, launched},

    {unknown, applicationWillTerminate, warning("App state is 'unknown', termination is not expected"), unchanged, terminated},
    {launched, applicationWillTerminate, nothing, unchanged, terminated},
    {terminated, applicationWillTerminate, warning("App was already 'terminated', attempting to terminate again"), unchanged, terminated},
    {pendingUpdate, applicationWillTerminate, nothing, schedule, updating},
    {updating, applicationWillTerminate, error("App is 'updating', termination is not expected"), unchanged, updating},

    {unknown, updateServiceWillInstallUpdate, warning("App state is 'unknown', attempt to install update"), unchanged, pendingUpdate},
    {launched, updateServiceWillInstallUpdate, nothing, unchanged, pendingUpdate},
    {terminated, updateServiceWillInstallUpdate, warning("App was 'terminated', update installation is not expected"), unchanged, terminated},
    {pendingUpdate, updateServiceWillInstallUpdate, warning("Attempt to install update while app is pending update"), unchanged, pendingUpdate},
    {updating, updateServiceWillInstallUpdate, warning("Attempt to install update while app is updating"), unchanged, updating},

    {unknown, updateServiceUpdateCompleted, info("App is 'launched', update completed"), unchanged, launched},
    {launched, updateServiceUpdateCompleted, info("App is 'launched', update completed"), unchanged, launched},
    {terminated, updateServiceUpdateCompleted, nothing, unchanged, terminated},
    {pendingUpdate, updateServiceUpdateCompleted, error("App is 'pendingUpdate', update completed is not expected"), unchanged, launched},
    {updating, updateServiceUpdateCompleted, info("App is 'updating', update completed"), unchanged, launched},  // a timer that runs keeps running
});
// clang-format on

constexpr auto rowsFor(State state, ApplicationNotification notification) {
  return std::ranges::count_if(table, [=](const auto& row) { return row.from == state && row.on == notification; });
}

/// Every state meets every notification in exactly one row.
consteval bool isCompleteAndUnique() {
  for (const State state : {unknown, launched, terminated, pendingUpdate, updating}) {
    for (std::size_t i = 0; i < applicationNotificationNames.size(); ++i) {
      if (rowsFor(state, static_cast<ApplicationNotification>(i)) != 1) return false;
    }
  }
  return true;
}
static_assert(isCompleteAndUnique());

}  // namespace transitions

/// The one row for this state and notification.
constexpr const ApplicationTransition& applicationTransition(ObservingApplicationState from,
                                                             ApplicationNotification on) {
  return *std::ranges::find_if(transitions::table, [=](const auto& row) { return row.from == from && row.on == on; });
}

}  // namespace corvane
