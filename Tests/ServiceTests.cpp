#include "Environment/EmergencyUpdateServiceAgentIDProvider.h"
#include "Support/RecordingLogSender.h"
#include "Support/World.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

using testing::ElementsAre;

namespace {

constexpr const char* dryRunForEverybody =
    R"({"version":"1","updates":[{"date":"","appVersions":["1"],"actions":[{"dryRun":{}}]}]})";
constexpr const char* emptyList = R"({"version":"1","updates":[]})";

struct Service : World {
  Service() { installs("1.79.3"); }

  static constexpr const char* overrideKey = "com.corvane.EmergencyUpdateService.listCheckTimeIntervalSeconds";

  /// How many checks begin within so many seconds from now.
  int checksWithin(double seconds) {
    records();
    advance(seconds);
    return static_cast<int>(std::ranges::count(records(), "Emergency update list check started"));
  }
};

TEST_F(Service, LaunchesInOrderAndPerformsADryRun) {
  serves(dryRunForEverybody);
  launch();
  EXPECT_THAT(network.requested, ElementsAre("https://download.corvane.example/emergency_update_list.json"));
  EXPECT_THAT(records(),
              ElementsAre("EmergencyUpdateService launching", "EmergencyUpdateService starting update watchdog",
                          "EmergencyUpdateService starting checking list",
                          "EmergencyUpdateService starting cleanup manager", "Emergency update list check started",
                          "Dry run action triggered", "Emergency update service, times main app missing: 0/2"));
  const fakes::RecordingLogSender log;
  service().terminate();
  EXPECT_THAT(log.textsAndPlaces(),
              ElementsAre("info EmergencyUpdateService: EmergencyUpdateService being terminated "
                          "@EmergencyUpdateService terminate()",
                          "debug EmergencyUpdateService: EmergencyUpdateService stopping update watchdog "
                          "@EmergencyUpdateService stopUpdateWatchdog()",
                          "debug EmergencyUpdateService: EmergencyUpdateService stopping checking list "
                          "@EmergencyUpdateService stopCheckingEmergencyUpdateList()",
                          "debug EmergencyUpdateListChecker: Emergency update list check stopped "
                          "@EmergencyUpdateList/EmergencyUpdateListChecker stop()",
                          "debug EmergencyUpdateService: EmergencyUpdateService stopping cleanup manager "
                          "@EmergencyUpdateService stopCleanupManager()",
                          "debug EmergencyUpdateServiceMainAppUninstalledChecker: Emergency update service main app "
                          "checker stopped @Cleanup/EmergencyUpdateServiceMainAppUninstalledChecker stop()"));
  advance(10 * hours);
  EXPECT_EQ(log.records().size(), 6U) << "a stopped checker checked";
}

TEST_F(Service, PostsWhatItKnowsOfItselfAndTheMachine) {
  serves(dryRunForEverybody);
  workspace.running.push_back(
      std::make_shared<fakes::FakeRunningApplication>(std::string(corvane::OrvikApp::bundleIdentifier), 1));
  launch();
  ASSERT_EQ(downloads.posted.size(), 2U);
  auto launching = nlohmann::ordered_json::parse(downloads.posted[0].httpBody);
  EXPECT_EQ(launching.value("agentID", "").size(), 36U) << "it is there from the first record on";
  launching.erase("agentID");
  launching.erase("line");
  EXPECT_EQ(launching.dump(),
            R"j({"file":"EmergencyUpdateService","function":"launch()","application":"macExtension","env":"prod",)j"
            R"("version":"7.1","osVersion":"14.5.0","osArch":"arm64","logger":"EmergencyUpdateService",)"
            R"("level":"INFO","message":"EmergencyUpdateService launching"})");
  EXPECT_EQ(
      nlohmann::ordered_json::parse(downloads.posted[1].httpBody)["extra"].dump(),
      R"({"appBundleVersion":"1.79.3","isApplicationRunning":true,"osVersion":"14.5.0","devicePlatform":"arm64"})");
}

TEST_F(Service, ASecondLaunchIsIgnored) {
  serves(emptyList);
  launch();
  const fakes::RecordingLogSender log;
  service().launch();
  settle();
  EXPECT_THAT(log.texts(),
              ElementsAre("trace EmergencyUpdateService: EmergencyUpdateService launch was already called. "
                          "Ignoring."));
  EXPECT_EQ(network.requested.size(), 1U);
}

TEST_F(Service, TerminatesBeforeItWasLaunched) {
  const fakes::RecordingLogSender log;
  service().terminate();
  EXPECT_EQ(log.records().size(), 4U);
}

TEST_F(Service, WithoutABundleIdentifierChecksTheListAllTheSame) {
  hasNoBundleIdentifier();
  stores(1, overrideKey);
  serves(emptyList);
  launch();
  EXPECT_THAT(records(),
              testing::IsSupersetOf({"EmergencyUpdateService could not start cleanup manager: agentEnvironment is nil",
                                     "Validation succeeded with no updates"}));
  EXPECT_EQ(checksWithin(4 * hours - 1), 0) << "the override must not count without an identifier";
}

TEST_F(Service, ChecksAtOnceThenEveryFourHoursFromTheStartOfACheck) {
  serves(emptyList);
  launch();
  EXPECT_EQ(network.requested.size(), 1U);
  EXPECT_EQ(checksWithin(4 * hours - 1), 0);
  EXPECT_EQ(checksWithin(1), 1) << "elapsed time equal to the interval passes";
  servesNothing();
  EXPECT_EQ(checksWithin(4 * hours), 1);
  EXPECT_EQ(checksWithin(4 * hours - 60), 0) << "a failed check counts as one";
}

TEST_F(Service, AClockSetBackDelaysAndOneSetForwardHastensTheNextCheck) {
  serves(emptyList);
  launch();
  clock.setForward(-2 * hours);
  EXPECT_EQ(checksWithin(6 * hours - 60), 0);
  EXPECT_EQ(checksWithin(60), 1);
  clock.setForward(3 * hours);
  EXPECT_EQ(checksWithin(1 * hours), 1);
}

TEST_F(Service, ADayAsleepOrAClockThatMovesDuringACheckMakesForOneCheckNoMore) {
  serves(emptyList);
  launch();
  advance(30);
  clock.setForward(24 * hours);  // asleep: timers stand still meanwhile
  EXPECT_EQ(checksWithin(30), 1) << "at the next tick";
  EXPECT_EQ(checksWithin(4 * hours - 60), 0);
  const auto checkWhileTheClockMoves = [this](double seconds) {
    network.answer = [this, seconds](const platform::URL&) {
      clock.setForward(seconds);
      return emptyList;
    };
    const int checks = checksWithin(60);
    serves(emptyList);
    return checks;
  };
  EXPECT_EQ(checkWhileTheClockMoves(24 * hours), 1);
  EXPECT_EQ(checksWithin(60), 1) << "the interval counts from the start of the check";
  EXPECT_EQ(checksWithin(4 * hours - 60), 0);
  EXPECT_EQ(checkWhileTheClockMoves(-3 * hours), 1);
  EXPECT_EQ(checksWithin(7 * hours - 60), 0);
  EXPECT_EQ(checksWithin(60), 1);
}

TEST_F(Service, ADayAsleepCountsForNoMissingApplication) {
  launch();
  systemLog.entries.clear();
  advance(30);
  clock.setForward(24 * hours);
  advance(29);
  EXPECT_EQ(processExit.status, std::nullopt) << "missed once, long ago, and asleep since";
  installs("1");
  advance(31);
  EXPECT_EQ(processExit.status, std::nullopt);
  EXPECT_THAT(records(), testing::Contains(std::string(missingCount) + "0/2"));
}

TEST(ServiceOverride, ReplacesTheIntervalOnlyWhenItIsANumber) {
  const std::vector<std::pair<platform::PropertyList, int>> rows = {
      {0, 240}, {600, 24}, {90.5, 120}, {-1, 240}, {"600", 1}, {true, 1}, {platform::PropertyList::Date{600}, 1}};
  for (const auto& [value, checksInFourHours] : rows) {
    Service at;
    at.stores(value, Service::overrideKey);
    at.serves(emptyList);
    at.launch();
    EXPECT_EQ(at.checksWithin(4 * World::hours), checksInFourHours)
        << value.serialized(platform::PropertyList::Format::xml);
  }
}

TEST_F(Service, SkipsTicksWhileACheckIsRunning) {
  stores(0, overrideKey);
  int running = 0;
  network.answer = [&](const platform::URL&) -> fakes::ScriptedURLContents::Answer {
    EXPECT_EQ(++running, 1) << "two checks overlap";
    if (network.requested.size() == 1) advance(10 * 60);  // this download takes ten ticks
    --running;
    return emptyList;
  };
  launch();
  EXPECT_EQ(network.requested.size(), 1U);
  EXPECT_EQ(checksWithin(60), 1) << "after the long one the ticks count again";
}

TEST_F(Service, SaysWhatItCouldNotDo) {
  downloads.answer = [](const platform::URL&) {
    return fakes::ScriptedURLSessions::Answer{.error = platform::NSError(platform::NSURLErrorDomain, -1009)};
  };
  launch();
  const fakes::RecordingLogSender log;
  auto said = [&log, from = std::size_t{0}]() mutable {
    const auto all = log.textsAndPlaces();
    std::vector<std::string> texts(all.begin() + static_cast<std::ptrdiff_t>(std::exchange(from, all.size())),
                                   all.end());
    std::erase_if(texts, [](const std::string& text) { return text.contains(missingCount); });
    return texts;
  };
  const std::string checker = " @EmergencyUpdateList/EmergencyUpdateListChecker check()";
  const std::map<std::string, std::vector<std::string>> expected = {
      {"",
       {"error EmergencyUpdateListDownloader: Failed to download emergency update list "
        "@EmergencyUpdateList/EmergencyUpdateListDownloader download()",
        "error EmergencyUpdateListChecker: Check aborted, could not download" + checker}},
      {"<html>",
       {"error EmergencyUpdateListParser: Failed to parse emergency update list "
        "@EmergencyUpdateList/EmergencyUpdateList parse(_:)",
        "error EmergencyUpdateListChecker: Check aborted, could not parse" + checker}},
      {emptyList, {"info EmergencyUpdateListChecker: Validation succeeded with no updates" + checker}},
      {R"({"version":"","updates":[{"date":"","appVersions":["2"],"actions":[]}]})",
       {"info EmergencyUpdateListChecker: Validation succeeded with no matches" + checker}},
      {R"({"version":"","updates":[{"date":"","appVersions":["1"],"actions":[]}]})",
       {"error EmergencyUpdateListChecker: Validation failed: (ValidationFailure.noActions)" + checker}},
  };
  for (const auto& [list, messages] : expected) {
    list.empty() ? servesNothing() : serves(list);
    advance(4 * hours);
    std::vector<std::string> all = {"debug EmergencyUpdateListChecker: Emergency update list check started" + checker};
    all.insert(all.end(), messages.begin(), messages.end());
    EXPECT_EQ(said(), all) << list;
  }
  // An install: that every stage's records are under the stage's own name is seen at the first of each.
  serves(R"({"version":"","updates":[{"date":"","appVersions":["1"],"actions":[{"install":{"url":"https://a/b"}}]}]})");
  advance(4 * hours);
  EXPECT_THAT(said(), testing::IsSupersetOf(
                          {"info EmergencyUpdateActionsPerformer: Install action triggered "
                           "@EmergencyUpdateList/EmergencyUpdateActionsPerformer perform(_:context:)",
                           "info EmergencyUpdateInstaller: Downloading "
                           "@Installer/EmergencyUpdateInstaller install(from:initiallyInstalledBundleVersion:)",
                           "info EmergencyUpdateAppDownloader: Download attempt 2/3 "
                           "@Installer/EmergencyUpdateAppDownloader download(from:)"}));
}

TEST_F(Service, MakesAnAgentIdentifierOnce) {
  const std::string key = std::string(identifier) + ".agentID";
  platform::posix::FileUserDefaultsDomains domains({platform::posix::Sysroot(""), mac.home().string(), ""}, identifier);
  launch();
  const auto stored = domains.standard()->object(key);
  ASSERT_TRUE(stored && stored->string() != nullptr);
  EXPECT_THAT(*stored->string(),
              testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
  corvane::EmergencyUpdateServiceAgentIDProvider later(domains.standard(), key);
  EXPECT_EQ(later.agentID(), *stored->string());
  domains.standard()->set(7, key);
  EXPECT_EQ(later.agentID(), *stored->string()) << "read once";
  corvane::EmergencyUpdateServiceAgentIDProvider anew(domains.standard(), key);
  EXPECT_NE(anew.agentID(), *stored->string()) << "a number is no identifier";
  EXPECT_EQ(domains.standard()->object(key), platform::PropertyList(anew.agentID()));
}

}  // namespace
