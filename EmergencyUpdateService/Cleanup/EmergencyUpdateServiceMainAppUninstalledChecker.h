#pragma once

#include "Environment/OrvikApp.h"
#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/BackgroundTasks.h"
#include "Platform/RunLoop.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace corvane {

/// Looks at once and then at every tick whether the main application is still installed, and tells its delegate when so
/// many checks in a row have missed it.
///
/// start() and stop() belong to the main thread; each tick's check is a background task of its own. A check
/// leaves the count as it is while the one before is still at work, and while the installer is replacing the installed
/// copy: for that moment, long with a slow disk, there is no main application, and an agent that took this for the
/// user's wish would remove itself in the middle of the repair. The other way round the installer finds no way in once
/// a check has begun, so an agent that is about to remove itself does not put back what the user has taken away. An
/// install that has not come to the replacing, or is past it, holds no check up.
class EmergencyUpdateServiceMainAppUninstalledChecker
    : public std::enable_shared_from_this<EmergencyUpdateServiceMainAppUninstalledChecker> {
 public:
  class Delegate {
   public:
    virtual ~Delegate() = default;
    /// On a background task; blocks it for as long as it likes.
    virtual void didDetectAppUninstalled() = 0;
  };

  struct Collaborators {
    EmergencyUpdateServiceLogger logger;
    std::shared_ptr<const OrvikApp::StateProvider> orvikAppStateProvider;
    std::shared_ptr<OrvikApp::InstallationMutex> installationMutex;
    platform::RunLoop& runLoop;
    platform::BackgroundTasks& backgroundTasks;
  };

  EmergencyUpdateServiceMainAppUninstalledChecker(Collaborators collaborators,
                                                  platform::TimeInterval runIntervalSeconds,
                                                  std::int64_t timesAppMissingLimit)
      : with_(std::move(collaborators)),
        runIntervalSeconds_(runIntervalSeconds),
        timesAppMissingLimit_(timesAppMissingLimit) {}
  EmergencyUpdateServiceMainAppUninstalledChecker(const EmergencyUpdateServiceMainAppUninstalledChecker&) = delete;
  EmergencyUpdateServiceMainAppUninstalledChecker& operator=(const EmergencyUpdateServiceMainAppUninstalledChecker&) =
      delete;
  /// Stops, with the record of stop().
  ~EmergencyUpdateServiceMainAppUninstalledChecker();

  /// To be set before start(). Without one, or when it is gone, reaching the limit only starts the count over.
  void setDelegate(std::weak_ptr<Delegate> delegate) { delegate_ = std::move(delegate); }

  /// Counts from 0, schedules the ticks and makes the first one now. The checker must be owned by a shared_ptr.
  void start();

  /// Ends the ticks; a check that is running goes on to its end.
  void stop();

  /// One check and its record; it counts nothing while another or a replacement of the installed copy is under way.
  void check();

 private:
  Collaborators with_;
  const platform::TimeInterval runIntervalSeconds_;
  const std::int64_t timesAppMissingLimit_;
  std::atomic<std::int64_t> timesAppMissing_ = 0;  // start() may meet a check
  std::weak_ptr<Delegate> delegate_;
  std::shared_ptr<platform::Timer> timer_;
};

}  // namespace corvane
