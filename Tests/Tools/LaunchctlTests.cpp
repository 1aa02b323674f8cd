#include "Platform/PropertyList.h"
#include "ToolWorld.h"

#include <fmt/format.h>
#include <unistd.h>

namespace tools::tests {
namespace {

using platform::PropertyList;

class LaunchctlTests : public ToolWorld {
 protected:
  static Outcome launchctl(const std::vector<std::string>& words) { return run("/bin/launchctl", words); }

  Outcome bootstrap(const PropertyList::Dictionary& job) const {
    const fs::path plist = write("job.plist", PropertyList(job).serialized(PropertyList::Format::binary));
    return launchctl({"bootstrap", domain, plist});
  }

  const std::string domain = fmt::format("gui/{}", getuid());
};

TEST_F(LaunchctlTests, AJobIsLoadedUntilItIsBootedOut) {
  EXPECT_EQ(bootstrap({{"Label", "com.b"}}).status, 0);
  EXPECT_EQ(bootstrap({{"Label", "com.a b"}}).status, 0);
  EXPECT_EQ(launchctl({"list"}).output, "PID\tStatus\tLabel\n-\t0\tcom.a b\n-\t0\tcom.b\n");

  const Outcome again = bootstrap({{"Label", "com.b"}});
  EXPECT_EQ(again.status, 5);
  EXPECT_EQ(again.error, "Bootstrap failed: 5: Input/output error\n");

  EXPECT_EQ(launchctl({"bootout", domain + "/com.b"}).status, 0);
  const Outcome gone = launchctl({"bootout", domain + "/com.b"});
  EXPECT_EQ(gone.status, 3);
  EXPECT_EQ(gone.error, "Boot-out failed: 3: No such process\n");
  EXPECT_THAT(tree(folder / "tmp/launchd"), testing::ElementsAre(testing::StartsWith("com.a b.plist 600 ")));
}

TEST_F(LaunchctlTests, AJobKeptAliveIsNotOnDemand) {
  struct Row {
    const char* name;
    PropertyList::Dictionary keys;
    bool onDemand;
  };
  const std::vector<Row> rows = {
      {"neither key", {}, true},
      {"kept alive", {{"KeepAlive", true}}, false},
      {"not kept alive", {{"KeepAlive", false}}, true},
      {"kept alive on conditions", {{"KeepAlive", PropertyList::Dictionary{{"SuccessfulExit", false}}}}, false},
      {"told outright", {{"KeepAlive", true}, {"OnDemand", true}}, true},
  };
  for (Row row : rows) {
    row.keys.insert({"Label", row.name});
    ASSERT_EQ(bootstrap(row.keys).status, 0) << row.name;
    const auto loaded = PropertyList::parse(read(folder / "tmp/launchd" / (std::string(row.name) + ".plist")));
    ASSERT_TRUE(loaded.has_value()) << row.name;
    const PropertyList* onDemand = (*loaded)["OnDemand"];
    ASSERT_NE(onDemand, nullptr) << row.name;
    EXPECT_EQ(*onDemand, PropertyList(row.onDemand)) << row.name;
  }
}

TEST_F(LaunchctlTests, RefusesWhatIsNoJobAndTouchesNoOtherFile) {
  const std::vector<std::pair<const char*, PropertyList::Dictionary>> rows = {
      {"no label", {}},
      {"a number for a label", {{"Label", 3}}},
      {"an empty label", {{"Label", ""}}},
      {"a label that leaves the folder", {{"Label", "../out"}}},
      {"a label too long for a file", {{"Label", std::string(300, 'a')}}},
  };
  for (const auto& [name, job] : rows) EXPECT_EQ(bootstrap(job).status, 5) << name;
  EXPECT_EQ(launchctl({"bootstrap", domain, write("text", "no list")}).status, 5);
  EXPECT_EQ(launchctl({"bootstrap", domain, folder / "missing"}).status, 2);
  EXPECT_TRUE(fs::is_empty(folder / "tmp"));

  write("tmp/out.plist", "");
  fs::create_directories(folder / "tmp/launchd");
  EXPECT_EQ(launchctl({"bootout", domain + "/../out"}).status, 3);
  EXPECT_EQ(launchctl({"bootout", domain}).status, 3);
  EXPECT_TRUE(fs::exists(folder / "tmp/out.plist"));
}

}  // namespace
}  // namespace tools::tests
