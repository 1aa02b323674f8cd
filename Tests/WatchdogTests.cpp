#include "Support/RecordingLogSender.h"
#include "Support/World.h"

#include <gmock/gmock.h>

using namespace corvane;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using enum ObservingApplicationState;
using Texts = std::vector<std::string>;

constexpr const char* didLaunch = "applicationDidFinishLaunching";
constexpr const char* willTerminate = "applicationWillTerminate";
constexpr const char* willInstall = "updateServiceWillInstallUpdate";
constexpr const char* completed = "updateServiceUpdateCompleted";

constexpr const char* notLaunched = "error UpdateWatchdog: App was not launched after update installation";

class Provider final : public OrvikApp::StateProvider {
 public:
  std::optional<std::string> version = "1.79.3";
  bool runs = true;
  [[nodiscard]] std::optional<platform::URL> installationURL() const override { return std::nullopt; }
  [[nodiscard]] std::optional<std::string> bundleVersion() const override { return version; }
  [[nodiscard]] std::vector<std::shared_ptr<platform::RunningApplication>> runningApplications() const override {
    if (!runs) return {};
    return {std::make_shared<fakes::FakeRunningApplication>(std::nullopt, 1)};
  }
  [[nodiscard]] bool isInstalled() const override { return true; }
};

/// A watchdog on its own, on virtual time.
struct Watch {
  explicit Watch(std::string prefix = "com.corvane.ProjectOrvik.") : before(std::move(prefix)) {}

  Texts post(std::initializer_list<const char*> names) {
    for (const char* name : names) center.post(before + name, {});
    return newRecords();
  }
  Texts advance(double seconds) {
    const double end = clock.uptime() + seconds;
    clock.moveTo(end);
    runLoop.runOnce();
    return newRecords();
  }
  Texts newRecords() {
    const Texts all = log.texts();
    Texts added(all.begin() + static_cast<std::ptrdiff_t>(seen), all.end());
    seen = all.size();
    return added;
  }
  Texts start() {
    watchdog->start();
    return newRecords();
  }

  const std::string before;
  std::size_t seen = 0;
  const fakes::RecordingLogSender log;
  fakes::VirtualClock clock;
  platform::RunLoop runLoop{clock};
  fakes::LocalNotificationCenter center;
  std::shared_ptr<Provider> provider = std::make_shared<Provider>();
  std::optional<ApplicationUpdateWatchdog> watchdog{
      std::in_place,
      ApplicationUpdateWatchdog::Collaborators{
          center, runLoop, provider,
          std::make_shared<ApplicationUpdateWatchdogTrackerImpl>(EmergencyUpdateServiceLogger("UpdateWatchdog"))},
      120.0};
};

// clang-format off
struct Cell { const char* notification; const char* report; ObservingApplicationState to; bool timerRuns; };
struct Start { ObservingApplicationState state; std::vector<const char*> way; std::vector<Cell> cells; };
const std::vector<Start> grid = {
    {unknown, {}, {
        {didLaunch, "", launched, false},
        {willTerminate, "warn UpdateWatchdog: App state is 'unknown', termination is not expected", terminated, false},
        {willInstall, "warn UpdateWatchdog: App state is 'unknown', attempt to install update", pendingUpdate, false},
        {completed, "trace UpdateWatchdog: App is 'launched', update completed", launched, false}}},
    {launched, {didLaunch}, {
        {didLaunch, "warn UpdateWatchdog: App was already 'launched', possible version 1.79.3 crash or force termination", launched, false},
        {willTerminate, "", terminated, false},
        {willInstall, "", pendingUpdate, false},
        {completed, "trace UpdateWatchdog: App is 'launched', update completed", launched, false}}},
    {terminated, {willTerminate}, {
        {didLaunch, "", launched, false},
        {willTerminate, "warn UpdateWatchdog: App was already 'terminated', attempting to terminate again", terminated, false},
        {willInstall, "warn UpdateWatchdog: App was 'terminated', update installation is not expected", terminated, false},
        {completed, "", terminated, false}}},
    {pendingUpdate, {willInstall}, {
        {didLaunch, "error UpdateWatchdog: App was pending update, possible version 1.79.3 crash", pendingUpdate, false},
        {willTerminate, "", updating, true},
        {willInstall, "warn UpdateWatchdog: Attempt to install update while app is pending update", pendingUpdate, false},
        {completed, "error UpdateWatchdog: App is 'pendingUpdate', update completed is not expected", launched, false}}},
    {updating, {willInstall, willTerminate}, {
        {didLaunch, "", launched, false},
        {willTerminate, "error UpdateWatchdog: App is 'updating', termination is not expected", updating, true},
        {willInstall, "warn UpdateWatchdog: Attempt to install update while app is updating", updating, true},
        {completed, "trace UpdateWatchdog: App is 'updating', update completed", launched, true}}},
};
// clang-format on

TEST(UpdateWatchdog, EveryStateMeetsEveryNotification) {
  for (const auto& [state, way, cells] : grid) {
    for (const auto& [notification, report, to, timerRuns] : cells) {
      Watch watch;
      const auto handle = [&](const char* name) {
        watch.watchdog->handleAppNotification({.name = watch.before + name, .object = {}});
      };
      for (const char* step : way) handle(step);
      ASSERT_EQ(watch.watchdog->applicationState(), state);
      watch.newRecords();
      handle(notification);
      const std::string cell = std::to_string(static_cast<int>(state)) + " " + notification;
      EXPECT_EQ(watch.newRecords(), *report == '\0' ? Texts{} : Texts{report}) << cell;
      EXPECT_EQ(watch.watchdog->applicationState(), to) << cell;
      EXPECT_EQ(watch.advance(120), timerRuns ? Texts{notLaunched} : Texts{}) << cell;
    }
  }
}

TEST(UpdateWatchdog, StartsOnceFromWhatRuns) {
  Watch watch;
  EXPECT_THAT(watch.post({didLaunch}), IsEmpty()) << "not started";
  EXPECT_THAT(watch.start(), ElementsAre("trace UpdateWatchdog: Starting Watchdog. Orvik is currently running"));
  EXPECT_EQ(watch.watchdog->applicationState(), launched);
  watch.provider->runs = false;
  const auto again = ElementsAre("trace UpdateWatchdog: Starting Watchdog. Orvik is currently not running",
                                 "error UpdateWatchdog: Attempt to start Watchdog while it is already running");
  EXPECT_THAT(watch.start(), again);
  EXPECT_THAT(watch.post({willTerminate, willTerminate}), testing::SizeIs(1)) << "each handled once";
  watch.watchdog->stop();
  EXPECT_THAT(watch.start(), again);
  EXPECT_THAT(watch.post({willTerminate}), IsEmpty()) << "a stopped watchdog observes again";
  for (const fakes::KeptRecord& record : watch.log.records()) {
    EXPECT_EQ(record.file + " " + record.function, "UpdateWatchdog/ApplicationUpdateWatchdogTracker track(event:)");
    EXPECT_EQ(record.message, record.redacted);
  }
  Watch other;
  other.provider->runs = false;
  other.start();
  EXPECT_EQ(other.watchdog->applicationState(), terminated);
}

TEST(UpdateWatchdog, NotesOnlyTheExactNames) {
  for (const char* prefix : {"com.corvane.projectorvik.", "com.corvane.ProjectOrvikHelper.", ""}) {
    Watch watch(prefix);
    watch.start();
    watch.watchdog->handleAppNotification({.name = watch.before + willTerminate, .object = {}});
    EXPECT_EQ(watch.watchdog->applicationState(), launched) << prefix;
  }
}

TEST(UpdateWatchdog, ALaterTerminationForAnUpdateReplacesTheTimer) {
  Watch watch;
  watch.start();
  watch.post({willInstall, willTerminate, completed});
  EXPECT_THAT(watch.advance(100), IsEmpty());
  watch.post({willInstall, willTerminate});
  EXPECT_THAT(watch.advance(119.9), IsEmpty()) << "the first timer expired";
  EXPECT_THAT(watch.advance(0.1), ElementsAre(notLaunched));
  EXPECT_EQ(watch.watchdog->applicationState(), updating);
  EXPECT_THAT(watch.advance(1000), IsEmpty()) << "reported twice";
}

TEST(UpdateWatchdog, TheTimerOutlivesCompletionAndStopButNotTheWatchdog) {
  Watch watch;
  watch.provider->version.reset();
  watch.start();
  watch.post({willInstall, willTerminate});
  EXPECT_THAT(watch.post({completed, didLaunch}),
              ElementsAre("trace UpdateWatchdog: App is 'updating', update completed",
                          "warn UpdateWatchdog: App was already 'launched', possible version  crash or force "
                          "termination"));
  watch.watchdog->stop();
  EXPECT_THAT(watch.advance(120), ElementsAre(notLaunched));

  Watch destroyed;
  destroyed.start();
  destroyed.post({willInstall, willTerminate});
  destroyed.watchdog.reset();
  EXPECT_THAT(destroyed.advance(200), IsEmpty());
  EXPECT_THAT(destroyed.post({didLaunch, didLaunch}), IsEmpty());
}

class WatchdogOfTheAgent : public World {};

TEST_F(WatchdogOfTheAgent, ReportsToTheSystemLogUntilTheAgentStops) {
  installs("1.79.3");
  launch();
  const auto post = [this](const char* name) {
    notifications.post(std::string("com.corvane.ProjectOrvik.") + name, {});
  };
  post(didLaunch);
  post(willInstall);
  post(willTerminate);
  records();
  advance(119);
  EXPECT_THAT(records(), testing::Not(testing::Contains("App was not launched after update installation")));
  advance(1);
  EXPECT_THAT(records(), testing::Contains("App was not launched after update installation"));
  service().terminate();
  EXPECT_THAT(notifications.registrations, IsEmpty());
}

}  // namespace
