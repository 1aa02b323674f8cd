#include "EmergencyUpdateList/EmergencyUpdateListChecker.h"

namespace corvane {

EmergencyUpdateListChecker::~EmergencyUpdateListChecker() {
  stop();
}

void EmergencyUpdateListChecker::start() {
  if (timer_) timer_->invalidate();
  timer_ = with_.runLoop.scheduledTimer(runIntervalSeconds_, platform::RunLoop::Repeats::yes,
                                        [weak = weak_from_this(), &tasks = with_.backgroundTasks] {
                                          tasks.start(platform::BackgroundTasks::Priority::background, [weak] {
                                            if (const auto checker = weak.lock()) checker->check();
                                          });
                                        });
  timer_->fire();
}

void EmergencyUpdateListChecker::stop() {
  if (timer_) timer_->invalidate();
  timer_.reset();
  with_.logger.debug({"Emergency update list check stopped"}, at("stop()"));
}

void EmergencyUpdateListChecker::check() {
  if (isChecking_.exchange(true)) return;
  if (isDue()) checkNow();
  isChecking_ = false;
}

bool EmergencyUpdateListChecker::isDue() {
  const platform::TimeInterval now = with_.clock.date();
  // Written so that an interval that is no number lets no second check pass.
  const bool due = !lastCheckTime_ || now - *lastCheckTime_ >= checkIntervalSeconds_;
  if (due) lastCheckTime_ = now;
  return due;
}

void EmergencyUpdateListChecker::checkNow() {
  with_.logger.debug({"Emergency update list check started"}, at("check()"));
  const auto data = with_.downloader.download();
  if (!data) {
    with_.logger.error({"Check aborted, could not download"}, at("check()"));
    return;
  }
  const auto list = with_.parser.parse(*data);
  if (!list) {
    with_.logger.error({"Check aborted, could not parse"}, at("check()"));
    return;
  }
  const EmergencyUpdateContext context = with_.updateContextRetriever->retrieveContext();
  const auto outcome = with_.validator.validate(*list, context);
  if (!outcome) {
    with_.logger.error({"Validation failed: {}", outcome.error()}, at("check()"));
    return;
  }
  act(*outcome, context);
}

void EmergencyUpdateListChecker::act(const EmergencyUpdateListValidator::ValidationOutcome& outcome,
                                     const EmergencyUpdateContext& context) const {
  using Validator = EmergencyUpdateListValidator;
  if (std::holds_alternative<Validator::NoUpdates>(outcome)) {
    with_.logger.info({"Validation succeeded with no updates"}, at("check()"));
  } else if (std::holds_alternative<Validator::NoMatches>(outcome)) {
    with_.logger.info({"Validation succeeded with no matches"}, at("check()"));
  } else {
    for (const auto& action : std::get<Validator::Matched>(outcome).actions) {
      with_.actionsPerformer.perform(action, context);
    }
  }
}

}  // namespace corvane
