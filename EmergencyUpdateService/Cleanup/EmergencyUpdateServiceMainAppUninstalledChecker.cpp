#include "Cleanup/EmergencyUpdateServiceMainAppUninstalledChecker.h"

namespace corvane {

EmergencyUpdateServiceMainAppUninstalledChecker::~EmergencyUpdateServiceMainAppUninstalledChecker() {
  stop();
}

void EmergencyUpdateServiceMainAppUninstalledChecker::start() {
  timesAppMissing_ = 0;
  if (timer_) timer_->invalidate();
  timer_ = with_.runLoop.scheduledTimer(runIntervalSeconds_, platform::RunLoop::Repeats::yes,
                                        [weak = weak_from_this(), &tasks = with_.backgroundTasks] {
                                          tasks.start(platform::BackgroundTasks::Priority::unspecified, [weak] {
                                            if (const auto checker = weak.lock()) checker->check();
                                          });
                                        });
  timer_->fire();
}

void EmergencyUpdateServiceMainAppUninstalledChecker::stop() {
  if (timer_) timer_->invalidate();
  timer_.reset();
  with_.logger.debug({"Emergency update service main app checker stopped"}, at("stop()"));
}

void EmergencyUpdateServiceMainAppUninstalledChecker::check() {
  const std::unique_lock installation(*with_.installationMutex, std::try_to_lock);
  std::int64_t times = timesAppMissing_;
  if (installation) times = with_.orvikAppStateProvider->isInstalled() ? 0 : times + 1;
  timesAppMissing_ = times;
  with_.logger.debug({"Emergency update service, times main app missing: {}/{}", times, timesAppMissingLimit_},
                     at("check()"));
  if (!installation || times < timesAppMissingLimit_) return;
  if (const auto delegate = delegate_.lock()) delegate->didDetectAppUninstalled();
  timesAppMissing_ = 0;
}

}  // namespace corvane
