#include "EmergencyUpdateList/EmergencyUpdateActionsPerformer.h"
#include "EmergencyUpdateList/EmergencyUpdateListDecoder.h"
#include "EmergencyUpdateList/EmergencyUpdateListValidator.h"
#include "Support/RecordingLogSender.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

using namespace corvane;
using Update = EmergencyUpdateList::Update;

namespace {

/// A list of one entry with this text in place of its actions.
std::string listWithActions(const std::string& actions) {
  return fmt::format(R"({{"version":"1","updates":[{{"date":"d","appVersions":["1"],"actions":{}}}]}})", actions);
}

/// A list of one entry with these further members.
std::string listWithMembers(const std::string& members) {
  return fmt::format(R"({{"version":"1","updates":[{{"date":"d","appVersions":["1"],"actions":[]{}}}]}})", members);
}

Update::Install install(const char* url) {
  return {*platform::URL::parse(url)};
}

TEST(ListParser, ReadsEveryField) {
  const auto list = decodeEmergencyUpdateList(R"({
    "version": "3", "comment": {"deep": [1, {"x": null}]},
    "updates": [
      {"date": "2024-05-02", "appVersions": ["1.79.3"], "actions": [{"dryRun": {}}]},
      {"date": "2024-05-01", "appVersions": ["1.80", "1.81.0"], "osVersions": ["13", "14.2"],
       "devicePlatforms": ["arm64", "x86_64", "ARM64", "riscv"],
       "actions": [{"install": {"url": "https://example.invalid/app.dmg"}}], "more": []}]})");
  using enum Update::DevicePlatform;
  const EmergencyUpdateList expected{
      .version = "3",
      .updates = {{.date = "2024-05-02", .appVersions = {"1.79.3"}, .actions = {Update::DryRun{}}},
                  {.date = "2024-05-01",
                   .appVersions = {"1.80", "1.81.0"},
                   .osVersions = {{"13", "14.2"}},
                   .devicePlatforms = {{arm64, x86_64, unknown, unknown}},
                   .actions = {install("https://example.invalid/app.dmg")}}}};
  ASSERT_TRUE(list);
  EXPECT_EQ(*list, expected);
}

TEST(ListParser, TurnsActionsItCannotUseIntoUnknown) {
  const std::vector<std::pair<std::string, Update::Action>> rows = {
      {R"({"dryRun":null})", Update::DryRun{}},
      {R"({"dryRun":[{"a":[]}],"note":1})", Update::DryRun{}},
      {R"({"install":{"url":"https://a/b","sha":"x"},"note":{}})", install("https://a/b")},
      {R"({"install":{"url":"../relative.dmg"}})", install("../relative.dmg")},
      {R"({"install":{"url":"https://a/b","url":5}})", install("https://a/b")},
      {R"({"install":{}})", Update::Unknown{}},
      {R"({"install":{"url":null}})", Update::Unknown{}},
      {R"({"install":{"url":7}})", Update::Unknown{}},
      {R"({"install":{"url":["https://a/b"]}})", Update::Unknown{}},
      {R"({"install":{"url":""}})", Update::Unknown{}},
      {R"({"install":{"url":"http://[::1"}})", Update::Unknown{}},
      {fmt::format(R"({{"install":{{"url":"https://a/{}"}}}})", std::string(70'000, '/')), Update::Unknown{}},
      {R"({"install":{"Url":"https://a/b"}})", Update::Unknown{}},
      {R"({"install":{"x":{"url":"https://a/b"}}})", Update::Unknown{}},
      {R"({"install":"https://a/b"})", Update::Unknown{}},
      {R"({"install":[{"url":"https://a/b"}]})", Update::Unknown{}},
      {R"({"install":null})", Update::Unknown{}},
      {R"({"install":{"url":"https://a/b"},"dryRun":{}})", Update::Unknown{}},
      {R"({"Install":{"url":"https://a/b"}})", Update::Unknown{}},
      {R"({})", Update::Unknown{}},
  };
  for (const auto& [json, action] : rows) {
    // Between two others, so that nothing of one action reaches the next.
    const auto list = decodeEmergencyUpdateList(
        listWithActions(fmt::format(R"([{{"install":{{"url":"x:1"}}}},{},{{"install":{{}}}}])", json)));
    ASSERT_TRUE(list) << json;
    EXPECT_THAT(list->updates[0].actions,
                testing::ElementsAre(Update::Action(install("x:1")), action, Update::Action(Update::Unknown{})))
        << json;
  }
}

TEST(ListParser, TakesNullForAbsentOnlyWhereAFieldIsOptional) {
  const auto list = decodeEmergencyUpdateList(listWithMembers(R"(,"osVersions":null,"devicePlatforms":null)"));
  ASSERT_TRUE(list);
  EXPECT_FALSE(list->updates[0].osVersions);
  EXPECT_FALSE(list->updates[0].devicePlatforms);
  const auto empty = decodeEmergencyUpdateList(listWithMembers(R"(,"osVersions":[],"devicePlatforms":[])"));
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->updates[0].osVersions && empty->updates[0].osVersions->empty());
}

TEST(ListParser, RejectsTheWholeDocumentWithOneRecord) {
  std::string manyElements = R"({"version":"1","updates":[{"date":"","appVersions":[)";
  for (int i = 0; i < 1'000'001; ++i) manyElements += "\"\",";
  manyElements += R"(""],"actions":[]}]})";
  const std::vector<std::pair<const char*, std::string>> rows = {
      {"nothing", ""},
      {"no JSON", "<html></html>"},
      {"NUL behind", R"({"version":"1","updates":[]})" + std::string(1, '\0') + "<html>"},
      {"text behind", R"({"version":"1","updates":[]} x)"},
      {"array on top", "[]"},
      {"text on top", "\"version\""},
      {"no version", R"({"updates":[]})"},
      {"no updates", R"({"version":"1"})"},
      {"number as version", R"({"version":1,"updates":[]})"},
      {"null as version", R"({"version":null,"updates":[]})"},
      {"key in another case", R"({"Version":"1","updates":[]})"},
      {"null as updates", R"({"version":"1","updates":null})"},
      {"object as updates", R"({"version":"1","updates":{}})"},
      {"text as update", R"({"version":"1","updates":["x"]})"},
      {"no date", R"({"version":"1","updates":[{"appVersions":[],"actions":[]}]})"},
      {"number as date", R"({"version":"1","updates":[{"date":1,"appVersions":[],"actions":[]}]})"},
      {"no appVersions", R"({"version":"1","updates":[{"date":"","actions":[]}]})"},
      {"null as appVersions", R"({"version":"1","updates":[{"date":"","appVersions":null,"actions":[]}]})"},
      {"number in appVersions", R"({"version":"1","updates":[{"date":"","appVersions":[1],"actions":[]}]})"},
      {"array in appVersions", R"({"version":"1","updates":[{"date":"","appVersions":[[]],"actions":[]}]})"},
      {"no actions", R"({"version":"1","updates":[{"date":"","appVersions":[]}]})"},
      {"null as actions", R"({"version":"1","updates":[{"date":"","appVersions":[],"actions":null}]})"},
      {"text as action", listWithActions(R"(["dryRun"])")},
      {"null as action", listWithActions("[null]")},
      {"array as action", listWithActions("[[]]")},
      {"text as osVersions", listWithMembers(R"(,"osVersions":"13")")},
      {"number in osVersions", listWithMembers(R"(,"osVersions":[13])")},
      {"null in osVersions", listWithMembers(R"(,"osVersions":[null])")},
      {"number in devicePlatforms", listWithMembers(R"(,"devicePlatforms":[1])")},
      {"object as devicePlatforms", listWithMembers(R"(,"devicePlatforms":{})")},
      {"invalid UTF-8", "{\"version\":\"\xC3\x28\",\"updates\":[]}"},
      {"lone surrogate", R"({"version":"\ud800","updates":[]})"},
      {"deep nesting", R"({"version":"1","updates":[],"x":)" + std::string(1'000'000, '[')},
      {"deep nesting, closed",
       R"({"x":)" + std::string(600, '[') + std::string(600, ']') + R"(,"version":"1","updates":[]})"},
      {"a million elements", manyElements},
      {"cut short", R"({"version":"1","updates":[{"date":"","appVersions":["1)"},
  };
  for (const auto& [name, json] : rows) {
    const fakes::RecordingLogSender log;
    EXPECT_FALSE(EmergencyUpdateListParser(EmergencyUpdateServiceLogger("P")).parse(json)) << name;
    ASSERT_EQ(log.records().size(), 1U) << name;
    EXPECT_EQ(log.records()[0].text(), "error P: Failed to parse emergency update list") << name;
    EXPECT_EQ(log.records()[0].file + " " + log.records()[0].function,
              "EmergencyUpdateList/EmergencyUpdateList parse(_:)");
  }
}

TEST(VersionPattern, ComparesTheComponentsThatBothHave) {
  const std::vector<std::tuple<const char*, const char*, bool>> rows = {
      {"1.2", "1.2", true},     {"1.2", "1.2.7.3", true}, {"1.2", "1", true},
      {"1.80", "1.80.1", true}, {"1.80", "1.8", false},   {"1.1", "1.10", false},
      {"01", "1", false},       {"1", "2", false},        {"14.2.0.1", "14.2.0", true},
      {"1..2", "1.5.2", false}, {"1..2", "1..2", true},   {"", "", true},
      {"", "1", false},         {"1", "", false},         {".1", "", true},
      {"a", "A", false},        {"1.", "1", true},        {"1.", "1.0", false},
  };
  for (const auto& [pattern, version, matches] : rows) {
    EXPECT_EQ(matchesVersionPattern(pattern, version), matches) << pattern << " against " << version;
  }
}

const EmergencyUpdateContext context{
    .appBundleVersion = "1.80.1", .isApplicationRunning = false, .osVersion = "14.2.1", .devicePlatform = "ARM64"};

/// "none", "no match", "no actions", or the actions that remain: "dryRun" or the install's URL.
std::string outcome(const std::vector<Update>& updates, const EmergencyUpdateContext& in = context) {
  const auto result = EmergencyUpdateListValidator().validate({.version = "", .updates = updates}, in);
  if (!result) return "no actions";
  if (std::holds_alternative<EmergencyUpdateListValidator::NoUpdates>(*result)) return "none";
  if (std::holds_alternative<EmergencyUpdateListValidator::NoMatches>(*result)) return "no match";
  std::string text;
  for (const auto& action : std::get<EmergencyUpdateListValidator::Matched>(*result).actions) {
    const auto* chosen = std::get_if<Update::Install>(&action);
    text += chosen != nullptr ? chosen->url.absoluteString() : "dryRun";
  }
  return text;
}

TEST(ListValidator, ChoosesTheLastMatchAndNoOther) {
  const Update a{.date = "9", .appVersions = {"1.80"}, .actions = {install("a:")}};
  const Update b{.date = "1", .appVersions = {"2", "1"}, .actions = {install("b:")}};
  const Update other{.appVersions = {"1.81"}, .actions = {Update::DryRun{}}};
  const Update useless{.appVersions = {"1.80"}, .actions = {Update::Unknown{}}};
  EXPECT_EQ(outcome({}), "none");
  EXPECT_EQ(outcome({other}), "no match");
  EXPECT_EQ(outcome({a, b, other}), "b:");
  EXPECT_EQ(outcome({b, a}), "a:");
  EXPECT_EQ(outcome({a, useless}), "no actions");
}

TEST(ListValidator, MatchesVersionSystemAndPlatform) {
  using enum Update::DevicePlatform;
  using Strings = std::vector<std::string>;
  const std::vector<std::tuple<const char*, Update, bool>> rows = {
      {"no app versions", {.appVersions = {}}, false},
      {"absent conditions", {.appVersions = {"1"}}, true},
      {"empty conditions", {.appVersions = {"1"}, .osVersions = Strings{}, .devicePlatforms = {{}}}, true},
      {"one system of two", {.appVersions = {"1"}, .osVersions = Strings{"13", "14.2"}}, true},
      {"other system", {.appVersions = {"1"}, .osVersions = Strings{"13", "14.3"}}, false},
      {"unknown platform, unknown machine", {.appVersions = {"1"}, .devicePlatforms = {{unknown}}}, false},
      {"platform in another case", {.appVersions = {"1"}, .devicePlatforms = {{x86_64, arm64}}}, true},
      {"other platform", {.appVersions = {"1"}, .devicePlatforms = {{x86_64, unknown}}}, false},
  };
  for (auto [name, update, matches] : rows) {
    update.actions = {Update::DryRun{}};
    EXPECT_EQ(outcome({update}), matches ? "dryRun" : "no match") << name;
  }
  const Update forAll{.appVersions = {"1"}, .actions = {Update::DryRun{}}};
  EXPECT_EQ(outcome({forAll}, {.appBundleVersion = "", .isApplicationRunning = true}), "no match");
  const Update forUnknown{.appVersions = {"1"}, .devicePlatforms = {{unknown}}, .actions = {Update::DryRun{}}};
  EXPECT_EQ(outcome({forUnknown}, {.appBundleVersion = "1", .osVersion = "1", .devicePlatform = "Unknown"}), "dryRun");
  const Update forNone{.appVersions = {"1"}, .devicePlatforms = {{}}, .actions = {Update::DryRun{}}};
  EXPECT_EQ(outcome({forNone}, {.appBundleVersion = "1", .osVersion = "1", .devicePlatform = ""}), "dryRun");
}

TEST(ListValidator, ReducesActions) {
  const auto reduced = [](const std::vector<Update::Action>& actions) {
    return outcome({{.appVersions = {"1"}, .actions = actions}});
  };
  EXPECT_EQ(reduced({}), "no actions");
  EXPECT_EQ(reduced({install("a:"), install("b:")}), "a:");
  EXPECT_EQ(reduced({install("a:"), Update::DryRun{}, install("b:")}), "dryRun");
  EXPECT_EQ(reduced({Update::DryRun{}, Update::DryRun{}}), "dryRun");
  EXPECT_EQ(reduced({Update::Unknown{}, install("a:")}), "a:");
}

struct RecordingInstaller final : EmergencyUpdateInstaller {
  void install(const platform::URL& from, const std::string& version) override {
    calls.push_back(from.absoluteString() + " " + version);
    recordsBefore = log->records().size();
  }
  const fakes::RecordingLogSender* log = nullptr;
  std::vector<std::string> calls;
  std::size_t recordsBefore = 0;
};

TEST(ActionsPerformer, LogsTheContextThenActs) {
  const fakes::RecordingLogSender log;
  const auto installer = std::make_shared<RecordingInstaller>();
  installer->log = &log;
  const EmergencyUpdateActionsPerformer performer(EmergencyUpdateServiceLogger("A"), installer);
  performer.perform(install("https://a/b"), context);
  EXPECT_THAT(installer->calls, testing::ElementsAre("https://a/b 1.80.1"));
  EXPECT_EQ(installer->recordsBefore, 1U) << "the record must be there before the installer is called";
  performer.perform(Update::DryRun{}, context);
  performer.perform(Update::Unknown{}, context);
  EXPECT_EQ(installer->calls.size(), 1U);
  EXPECT_THAT(log.texts(), testing::ElementsAre("info A: Install action triggered", "info A: Dry run action triggered",
                                                "error A: Unknown action triggered"));
  for (const auto& record : log.records()) {
    EXPECT_EQ(record.file + " " + record.function,
              "EmergencyUpdateList/EmergencyUpdateActionsPerformer perform(_:context:)");
    EXPECT_EQ(
        record.extra.value().dump(),
        R"({"appBundleVersion":"1.80.1","isApplicationRunning":false,"osVersion":"14.2.1","devicePlatform":"ARM64"})");
  }
}

}  // namespace
