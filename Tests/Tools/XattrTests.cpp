#include "ToolWorld.h"

namespace tools::tests {
namespace {

constexpr const char* attribute = "com.apple.quarantine";

class XattrTests : public ToolWorld {
 protected:
  XattrTests() {
    write("Mac/Applications/A.app/Contents/marked", "");
    write("Mac/Applications/A.app/unmarked", "");
    for (const char* path : {"/Applications/A.app", "/Applications/A.app/Contents/marked"}) {
      const Outcome written = run("/usr/bin/xattr", {"-w", attribute, "0081;x", path});
      EXPECT_EQ(written.status, 0) << written.error;
    }
  }

  /// The attributes of everything in the application, as the tool lists them.
  static std::string marks() { return run("/usr/bin/xattr", {"-r", "-l", "/Applications/A.app"}).output; }
};

TEST_F(XattrTests, AnAttributeIsALinuxAttributeOfTheUserNamespace) {
  EXPECT_EQ(run("/usr/bin/xattr", {"-p", attribute, "/Applications/A.app"}).output, "0081;x\n");
  EXPECT_EQ(run("/usr/bin/xattr", {"-l", "/Applications/A.app"}).output, "com.apple.quarantine: 0081;x\n");
}

TEST_F(XattrTests, DeletesBelowAFolderInAnyOrderOfTheFlags) {
  const std::vector<std::vector<std::string>> flags = {{"-d", "-r"}, {"-r", "-d"}, {"-rd"}, {"-dr", "--"}};
  for (std::vector<std::string> words : flags) {
    EXPECT_EQ(run("/usr/bin/xattr", {"-w", attribute, "1", "/Applications/A.app/Contents/marked"}).status, 0);
    words.insert(words.end(), {attribute, "/Applications/A.app"});
    const Outcome outcome = run("/usr/bin/xattr", words);
    EXPECT_EQ(outcome.status, 0) << words[0];
    EXPECT_EQ(outcome.error, "") << words[0];
    EXPECT_EQ(marks(), "") << words[0];
  }
}

TEST_F(XattrTests, FollowsLinksToFilesButDescendsNoLinkedFolder) {
  const fs::path outside = write("outside/below", "").parent_path();
  const fs::path target = write("target", "");
  fs::create_directory_symlink(outside, sysroot / "Applications/A.app/folder");
  fs::create_symlink(target, sysroot / "Applications/A.app/link");
  fs::create_symlink("nowhere", sysroot / "Applications/A.app/dangling");
  for (const fs::path& path : {outside / "below", target}) run("/usr/bin/xattr", {"-w", attribute, "1", path});

  const Outcome outcome = run("/usr/bin/xattr", {"-d", "-r", attribute, "/Applications/A.app"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.error, "xattr: No such file: /Applications/A.app/dangling\n");
  EXPECT_EQ(run("/usr/bin/xattr", {target}).output, "");
  EXPECT_EQ(run("/usr/bin/xattr", {outside / "below"}).output, "com.apple.quarantine\n");
}

TEST_F(XattrTests, SaysWhatIsWrongAndGoesOn) {
  struct Row {
    const char* name;
    std::vector<std::string> words;
    const char* error;
  };
  const std::vector<Row> rows = {
      {"no such file", {"-d", "n", "/Applications/B"}, "xattr: No such file: /Applications/B\n"},
      {"no such file, recursively", {"-d", "-r", "n", "/Library/B"}, "xattr: No such file: /Library/B\n"},
      {"no such attribute", {"-d", "n", "/Applications"}, "xattr: /Applications: No such xattr: n\n"},
      {"none to print", {"-p", "n", "/Applications"}, "xattr: /Applications: No such xattr: n\n"},
  };
  for (const Row& row : rows) {
    std::vector<std::string> words = row.words;
    words.emplace_back("/Applications/A.app");
    run("/usr/bin/xattr", {"-w", "n", "1", "/Applications/A.app"});
    const Outcome outcome = run("/usr/bin/xattr", words);
    EXPECT_EQ(outcome.status, 1) << row.name;
    EXPECT_EQ(outcome.error, row.error) << row.name;
  }
  EXPECT_EQ(run("/usr/bin/xattr", {"-d", "-p", "n", "/Applications"}).status, 1) << "two operations";
  EXPECT_EQ(run("/usr/bin/xattr", {"-d", "n"}).status, 1) << "no file";
}

TEST_F(XattrTests, GktoolAllowsWhatExists) {
  EXPECT_EQ(run("/usr/bin/gktool", {"scan", "/Applications/A.app"}).status, 0);
  EXPECT_EQ(run("/usr/bin/gktool", {"scan", "/Applications/B.app"}).status, 1);
  EXPECT_EQ(run("/usr/bin/gktool", {"scan"}).status, 1);
}

}  // namespace
}  // namespace tools::tests
