#include "Platform/RunLoop.h"
#include "Support/Fakes.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

using platform::RunLoop;
using platform::Timer;
using testing::ElementsAre;
using testing::IsEmpty;
using enum platform::RunLoop::Repeats;

namespace {

class RunLoopTest : public testing::Test {
 protected:
  std::shared_ptr<Timer> every(double interval, const std::string& name, RunLoop::Repeats repeats = yes) {
    return loop.scheduledTimer(interval, repeats, [this, name] { fired.push_back(name + "@" + now()); });
  }
  std::string now() const { return std::to_string(static_cast<int>(clock.uptime() - start)); }

  /// Moves the clock on and lets the loop run once, as a process does that was busy or asleep until then.
  std::vector<std::string> wakeAt(double time) {
    fired.clear();
    clock.moveTo(start + time);
    loop.runOnce();
    return fired;
  }

  fakes::VirtualClock clock;
  const double start = clock.uptime();
  RunLoop loop{clock};
  std::vector<std::string> fired;
};

TEST_F(RunLoopTest, FiresInOrderOfTimeThenOfRegistration) {
  every(30, "b");
  every(20, "c", no);
  every(30, "a");
  every(20, "d", no);
  EXPECT_THAT(wakeAt(19), IsEmpty());
  EXPECT_THAT(wakeAt(30), ElementsAre("c@30", "d@30", "b@30", "a@30"));
  EXPECT_EQ(loop.nextFireTime(), start + 60);
  EXPECT_THAT(wakeAt(60), ElementsAre("b@60", "a@60"));
}

TEST_F(RunLoopTest, KeepsItsPhaseAndCollapsesMissedFirings) {
  every(60, "t");
  EXPECT_THAT(wakeAt(61), ElementsAre("t@61"));
  EXPECT_EQ(loop.nextFireTime(), start + 120);
  EXPECT_THAT(wakeAt(365), ElementsAre("t@365"));
  EXPECT_EQ(loop.nextFireTime(), start + 420);
}

TEST_F(RunLoopTest, WorksOutTheNextFiringAfterTheActionReturned) {
  loop.scheduledTimer(60, yes, [&] { clock.moveTo(clock.uptime() + 130); });
  wakeAt(60);
  EXPECT_EQ(loop.nextFireTime(), start + 240);
}

TEST_F(RunLoopTest, FiringByHandLeavesTheScheduleAlone) {
  const auto repeating = every(60, "r");
  const auto once = every(60, "o", no);
  wakeAt(10);
  repeating->fire();
  once->fire();
  once->fire();
  EXPECT_THAT(fired, ElementsAre("r@10", "o@10"));
  EXPECT_FALSE(once->isValid());
  EXPECT_THAT(wakeAt(60), ElementsAre("r@60"));
}

TEST_F(RunLoopTest, AnInvalidatedTimerNeverFires) {
  auto captured = std::make_shared<int>(0);
  std::shared_ptr<Timer> self;
  std::shared_ptr<Timer> later;
  self = loop.scheduledTimer(10, yes, [&, captured] {
    fired.emplace_back("self");
    self->invalidate();
    later->invalidate();  // due in the same pass
    fired.push_back(std::to_string(captured.use_count()));
  });
  later = every(10, "later");
  EXPECT_THAT(wakeAt(10), ElementsAre("self", "2"));
  EXPECT_EQ(captured.use_count(), 1) << "an invalidated timer must let go of what its action holds";
  EXPECT_THAT(wakeAt(100), IsEmpty());
  self->fire();
  EXPECT_THAT(fired, IsEmpty());
  EXPECT_EQ(loop.nextFireTime(), std::nullopt);
}

TEST_F(RunLoopTest, ATimerMayScheduleAnotherAndOutliveItsHandle) {
  loop.scheduledTimer(10, no, [&] { every(0, "soon", no); });
  EXPECT_THAT(wakeAt(10), IsEmpty());
  EXPECT_THAT(wakeAt(11), ElementsAre("soon@11"));
}

}  // namespace
