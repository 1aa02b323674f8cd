#include "CodeSignature/PosixCodeSecurity.h"
#include "SigningWorld.h"

#include <gtest/gtest.h>

namespace codesignature_tests {
namespace {

using namespace platform;

constexpr std::uint32_t x86 = 0x01000007;
constexpr std::uint32_t arm = 0x0100000C;

TEST(MachOSignature, HoldsForThinAndFatFiles) {
  const SigningWorld world;
  const std::string thin = world.machO("thin");
  EXPECT_EQ(world.check(thin), errSecCSUnsigned);
  world.sign(thin);
  EXPECT_EQ(world.check(thin), errSecSuccess);
  world.sign(thin);  // once more, in the place of the first
  EXPECT_EQ(world.check(thin), errSecSuccess);

  const std::string large = world.machO("large", x86, 2U << 20U);
  world.sign(large);
  EXPECT_EQ(world.check(large), errSecCSBadObjectFormat) << "an Info.plist in it of any size would be read";

  const std::string fat = world.path("fat");
  write(fat, fatOf({world.machO("a", x86), world.machO("b", arm)}));
  EXPECT_EQ(world.check(fat), errSecCSUnsigned);
  world.sign(fat);
  EXPECT_EQ(world.check(fat), errSecSuccess);
}

TEST(MachOSignature, HoldsUntilOneThingIsChanged) {
  const SigningWorld world;
  const std::string thin = world.machO("thin");
  world.sign(thin);
  const std::string original = read(thin);
  const std::size_t signature = original.find("\xFA\xDE\x0C\xC0");
  struct Row {
    const char* name;
    std::function<void()> tamper;
    OSStatus expected;
  };
  const auto flipped = [&](std::size_t offset) {
    return [&, offset] { flip(thin, static_cast<std::int64_t>(offset)); };
  };
  const std::vector<Row> rows = {
      {"a page", flipped(8000), errSecCSSignatureFailed},
      {"the last byte before the signature", flipped(signature - 1), errSecCSSignatureFailed},
      {"the header's flags", flipped(24), errSecCSSignatureFailed},
      {"the header's count of commands", flipped(16), errSecCSUnsigned},
      {"the header's file type", flipped(12), errSecCSBadObjectFormat},
      {"the magic, into that of 32 bits", flipped(0), errSecCSBadObjectFormat},
      {"the magic", flipped(3), errSecCSUnsigned},
      {"the signature's magic", flipped(signature), errSecCSSignatureInvalid},
      {"a command's size", flipped(32 + 4 + 1), errSecCSBadObjectFormat},
      {"bytes after the end", [&] { append(thin, "x"); }, errSecCSBadMainExecutable},
      {"a disk image's trailer after the end", [&] { append(thin, read(world.image())); }, errSecCSBadMainExecutable},
      {"half of it", [&] { write(thin, original.substr(0, original.size() / 2)); }, errSecCSBadObjectFormat},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    write(thin, original);
    row.tamper();
    EXPECT_EQ(world.check(thin), row.expected);
  }
}

TEST(SuperBlobs, AreNotReadManyTimesOver) {
  codesignature::Bytes bytes;
  for (const std::uint32_t field : {0xFADE0CC0U, 136U, 3U, 1U, 36U, 2U, 36U, 3U, 36U, 0xFADE0B01U, 100U}) {
    codesignature::appendInteger(bytes, field);
  }
  bytes.resize(136);
  EXPECT_FALSE(codesignature::SuperBlob::parse(bytes));
}

TEST(MachOSignature, HoldsForAllSlicesOrNone) {
  const SigningWorld world;
  const Maker other = makerLike({.organizationalUnits = {"9JKQ000000"}});
  const std::string good = world.machO("good", x86);
  const std::string second = world.machO("second", arm);
  const std::string unsigned_ = world.machO("unsigned", arm);
  const std::string foreign = world.machO("foreign", arm);
  const std::string adHoc = world.machO("adHoc", arm);
  auto request = world.request();
  world.sign(good, request);
  world.sign(second, request);
  request.identity = &other.identity;
  world.sign(foreign, request);
  request.identity = nullptr;
  world.sign(adHoc, request);

  struct Row {
    const char* name;
    std::string bytes;
    const char* requirement;
    OSStatus expected;
  };
  std::string gap = fatOf({good, second});
  gap[5000] = 'x';
  const std::vector<Row> rows = {
      {"both the maker's", fatOf({good, second}), makersRequirement, errSecSuccess},
      {"the second unsigned", fatOf({good, unsigned_}), makersRequirement, errSecCSUnsigned},
      {"the first unsigned", fatOf({unsigned_, good}), makersRequirement, errSecCSUnsigned},
      {"the second another team's", fatOf({good, foreign}), makersRequirement, errSecCSReqFailed},
      {"the second another team's, and no requirement", fatOf({good, foreign}), "", errSecCSSignatureInvalid},
      {"the second ad hoc", fatOf({good, adHoc}), makersRequirement, errSecCSReqFailed},
      {"something in the gap", gap, makersRequirement, errSecCSBadMainExecutable},
      {"something at the end", fatOf({good, second}) + "x", makersRequirement, errSecCSBadMainExecutable},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    write(world.path("fat"), row.bytes);
    EXPECT_EQ(world.check(world.path("fat"), row.requirement), row.expected);
  }
}

TEST(MachOSignature, IsABundlesOwn) {
  const SigningWorld world;
  const std::string executable = read(world.machO());
  const std::string app = world.smallBundle(world.path("Native.app"), "com.corvane.Native", executable);
  world.sign(app);
  EXPECT_EQ(world.check(app, std::string(makersRequirement) + " and info[CFBundleVersion] >= \"1.2\""), errSecSuccess);
  flip(app + "/Contents/Info.plist", -1);  // still a property list
  EXPECT_EQ(world.check(app), errSecCSInfoPlistFailed);
  flip(app + "/Contents/Info.plist", -1);
  // A part of the signature beside the one in the executable.
  write(app + "/Contents/_CodeSignature/CodeEntitlements", "x");
  EXPECT_EQ(world.check(app), errSecCSSignatureFailed);
}

TEST(InstalledAnchors, AreThoseOfTheSystemFolder) {
  using platform::codesignature::PosixCodeSecurity;
  const SigningWorld world;
  const auto mapped = [&](std::string_view macPath) { return world.path("sysroot") + std::string(macPath); };
  const auto& root = SigningWorld::maker().identity.certificates().back();
  EXPECT_FALSE(PosixCodeSecurity::installedAnchors(mapped).contains(root));
  const std::string folder = world.path("sysroot/System/Library/Security");
  std::filesystem::create_directories(folder);
  const auto made = rehearsal::makeSigningIdentity().value();
  ASSERT_TRUE(made.writeInto(folder));
  const auto installed = PosixCodeSecurity::installedAnchors(mapped);
  EXPECT_FALSE(installed.contains(root));
  EXPECT_TRUE(installed.contains(codesignature::certificatesOfPEM(made.anchors).front()));
}

}  // namespace
}  // namespace codesignature_tests
