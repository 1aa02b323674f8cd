#pragma once

#include "EmergencyUpdateList/EmergencyUpdateActionsPerformer.h"
#include "EmergencyUpdateList/EmergencyUpdateContext.h"
#include "EmergencyUpdateList/EmergencyUpdateListDownloader.h"
#include "EmergencyUpdateList/EmergencyUpdateListValidator.h"
#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/BackgroundTasks.h"
#include "Platform/Clock.h"
#include "Platform/RunLoop.h"

#include <atomic>
#include <memory>
#include <optional>

namespace corvane {

/// Checks the emergency update list at once and then, from ticks a minute apart, whenever the check interval has
/// passed.
///
/// start() and stop() belong to the main thread. Each tick starts a background task of its own, which holds the checker
/// only while it runs; a check blocks it for the whole download and the whole install. A tick that comes while a check
/// is still running is skipped, so no two checks overlap, however long one takes and however short the interval is.
class EmergencyUpdateListChecker : public std::enable_shared_from_this<EmergencyUpdateListChecker> {
 public:
  struct Collaborators {
    EmergencyUpdateServiceLogger logger;
    EmergencyUpdateListDownloader downloader;
    std::shared_ptr<EmergencyUpdateContextRetriever> updateContextRetriever;
    EmergencyUpdateListParser parser;
    EmergencyUpdateListValidator validator;
    EmergencyUpdateActionsPerformer actionsPerformer;
    const platform::Clock& clock;
    platform::RunLoop& runLoop;
    platform::BackgroundTasks& backgroundTasks;
  };

  EmergencyUpdateListChecker(Collaborators collaborators, platform::TimeInterval runIntervalSeconds,
                             platform::TimeInterval checkIntervalSeconds)
      : with_(std::move(collaborators)),
        runIntervalSeconds_(runIntervalSeconds),
        checkIntervalSeconds_(checkIntervalSeconds) {}
  EmergencyUpdateListChecker(const EmergencyUpdateListChecker&) = delete;
  EmergencyUpdateListChecker& operator=(const EmergencyUpdateListChecker&) = delete;
  /// Stops, with the record of stop().
  ~EmergencyUpdateListChecker();

  /// Schedules the ticks and makes the first one now. The checker must be owned by a shared_ptr.
  void start();

  /// Ends the ticks; a check that is running goes on to its end.
  void stop();

  /// One check, unless the interval has not passed since the last one began or another is running. An interval counts
  /// from the start of a check, also of one that failed; a wall clock that was set back makes it longer.
  void check();

 private:
  [[nodiscard]] bool isDue();
  void checkNow();
  void act(const EmergencyUpdateListValidator::ValidationOutcome& outcome, const EmergencyUpdateContext& context) const;

  Collaborators with_;
  const platform::TimeInterval runIntervalSeconds_;
  const platform::TimeInterval checkIntervalSeconds_;
  std::shared_ptr<platform::Timer> timer_;
  std::atomic<bool> isChecking_ = false;
  std::optional<platform::TimeInterval> lastCheckTime_;  // wall clock; touched only by the one check that runs
};

}  // namespace corvane
