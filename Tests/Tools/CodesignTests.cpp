#include "Platform/PropertyList.h"
#include "Rehearsal/SigningIdentity.h"
#include "ToolWorld.h"

namespace tools::tests {
namespace {

using platform::PropertyList;

class CodesignTests : public ToolWorld {
 protected:
  CodesignTests() {
    const auto identity = rehearsal::makeSigningIdentity();
    if (!identity || !identity->writeInto(folder.string())) throw std::runtime_error("no signing identity");
    fs::remove(sysroot / "usr/bin/codesign");
    fs::create_symlink(CORVANE_CODESIGN, sysroot / "usr/bin/codesign");
    write("Mac/System/Library/Security/anchors.pem", identity->anchors);
    const PropertyList information(
        PropertyList::Dictionary{{"CFBundleIdentifier", "com.example.A"}, {"CFBundleExecutable", "A"}});
    write("Mac/Applications/A.app/Contents/Info.plist", information.serialized(PropertyList::Format::xml));
    fs::permissions(write("Mac/Applications/A.app/Contents/MacOS/A", "#!/bin/sh\n"), fs::perms::owner_all);
    write("Mac/Applications/A.app/Contents/Resources/r", "resource");
  }

  static Outcome codesign(std::vector<std::string> words) {
    words.emplace_back("/Applications/A.app");
    return run("/usr/bin/codesign", words);
  }
};

TEST_F(CodesignTests, SaysWhetherCodeIsValidAndMeetsTheRequirement) {
  const std::string good = "-R=anchor apple generic and identifier \"com.example.A\"";
  const std::string other = "-R=identifier \"com.example.B\"";
  EXPECT_EQ(codesign({"--verify"}).status, 1) << "unsigned";
  ASSERT_EQ(codesign({"--sign", folder / "identity.pem"}).status, 0);
  EXPECT_EQ(codesign({"--verify", good, "-v"}).error, "/Applications/A.app: valid on disk\n");
  EXPECT_EQ(codesign({"--verify", other}).status, 3);
  EXPECT_EQ(codesign({"--verify", "-R=identifier"}).status, 2) << "a requirement that does not compile";
  EXPECT_EQ(codesign({"--sign", folder / "identity.pem"}).status, 1) << "signed already";
  ASSERT_EQ(codesign({"--sign", folder / "identity.pem", "--force", "--identifier", "com.example.B"}).status, 0);
  EXPECT_EQ(codesign({"--verify", other}).status, 0);
  EXPECT_EQ(codesign({"--verify", good}).status, 3);

  write("Mac/Applications/A.app/Contents/Resources/more\nx: valid on disk", "");
  write("Mac/Applications/A.app/Contents/Resources/much", "");
  const Outcome altered = codesign({"--verify", good, "-v"});
  EXPECT_EQ(altered.status, 1) << "invalid, whatever the requirement";
  EXPECT_THAT(altered.error, testing::MatchesRegex("/Applications/A.app: [^\n]*-67054[^\n]*\n"));
  EXPECT_EQ(run("/usr/bin/codesign", {"--verify"}).status, 2);
}

}  // namespace
}  // namespace tools::tests
