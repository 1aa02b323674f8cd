#include "CodeSignature/Digest.h"
#include "Platform/PropertyList.h"
#include "SigningWorld.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace codesignature_tests {
namespace {

using namespace platform;
using namespace platform::codesignature;
namespace fs = std::filesystem;

struct Row {
  const char* name;
  std::function<void(const std::string& contents)> tamper;
  OSStatus expected;
};

void relink(const std::string& path, const char* target) {
  fs::remove_all(path);
  fs::create_symlink(target, path);
}

/// Moves an item away and puts a link to it in its place.
void hideBehindLink(const std::string& path, const std::string& place) {
  fs::rename(path, place);
  fs::create_symlink(place, path);
}

void signAsOther(const std::string& path) {
  static const Maker other = makerLike({.organizationalUnits = {"9JKQ000000"}});
  const SigningWorld world;
  auto request = world.request();
  request.identity = &other.identity;
  world.sign(path, request);
}

void expectAll(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const SigningWorld world;
    const std::string app = world.bundle();
    world.sign(app);
    row.tamper(app + "/Contents");
    EXPECT_EQ(world.check(app), row.expected);
  }
}

TEST(BundleSignature, NamesCountByTheirCanonicalForm) {
  const SigningWorld world;
  const std::string app = world.bundle();
  const std::string folder = app + "/Contents/Resources/";
  write(folder + "\u00e9\ud55c.txt", "x");  // é and a Hangul syllable
  world.sign(app);
  EXPECT_EQ(world.check(app), errSecSuccess);
  fs::rename(folder + "\u00e9\ud55c.txt", folder + "e\u0301\u1112\u1161\u11ab.txt");
  EXPECT_EQ(world.check(app), errSecSuccess);
  write(folder + "\u00e9\ud55c.txt", "y");  // both, and one of them altered
  EXPECT_EQ(world.check(app), errSecCSBadResource);
  fs::remove(folder + "\u00e9\ud55c.txt");
  fs::rename(folder + "e\u0301\u1112\u1161\u11ab.txt", folder + "e\u0300.txt");
  EXPECT_EQ(world.check(app), errSecCSBadResource);
}

TEST(BundleSignature, HoldsUntilOneThingIsChanged) {
  const auto removed = [](const char* name) { return [name](const auto& c) { fs::remove_all(c + name); }; };
  const auto added = [](const char* name) { return [name](const auto& c) { write(c + name, "x"); }; };
  const auto appended = [](const char* name) { return [name](const auto& c) { append(c + name, "x"); }; };
  const auto flipped = [](const char* name) { return [name](const auto& c) { flip(c + name, 2); }; };
  expectAll({
      {"nothing", [](const auto&) {}, errSecSuccess},
      {"the executable", flipped("/MacOS/Main"), errSecCSSignatureFailed},
      {"text after the executable", appended("/MacOS/Main"), errSecCSSignatureInvalid},
      {"no executable", removed("/MacOS/Main"), errSecCSSignatureInvalid},
      {"the executable behind a link", [](const auto& c) { hideBehindLink(c + "/MacOS/Main", c + "/Resources/Main"); },
       errSecCSRegularFile},
      {"Info.plist", [](const auto& c) { flipAt(c + "/Info.plist", "1.10.2"); }, errSecCSInfoPlistFailed},
      {"Info.plist that is none", [](const auto& c) { write(c + "/Info.plist", "x"); }, errSecCSInfoPlistFailed},
      {"Info.plist behind a link", [](const auto& c) { hideBehindLink(c + "/Info.plist", c + "/Resources/I"); },
       errSecCSRegularFile},
      {"an executable's name with a path",
       [](const auto& c) {
         auto text = read(c + "/Info.plist");
         write(c + "/Info.plist", text.replace(text.find("Main"), 4, "../M"));
       },
       errSecCSBadBundleFormat},
      {"Contents behind a link", [](const auto& c) { hideBehindLink(c, c + ".real"); }, errSecCSBadBundleFormat},
      {"the signature's folder behind a link", [](const auto& c) { hideBehindLink(c + "/_CodeSignature", c + "/S"); },
       errSecCSSignatureFailed},
      {"the seal", [](const auto& c) { flipAt(c + "/_CodeSignature/CodeResources", "about"); },
       errSecCSResourceDirectoryFailed},
      {"no seal", removed("/_CodeSignature/CodeResources"), errSecCSResourceDirectoryFailed},
      {"no code directory", removed("/_CodeSignature/CodeDirectory"), errSecCSUnsigned},
      {"no CMS", removed("/_CodeSignature/CodeSignature"), errSecCSUnsigned},
      {"no requirements", removed("/_CodeSignature/CodeRequirements"), errSecCSSignatureFailed},
      {"no signature's folder", removed("/_CodeSignature"), errSecCSUnsigned},
      {"a stranger in the signature's folder", added("/_CodeSignature/x"), errSecCSUnsealedAppRoot},
      {"a file beside Contents", added("/../x"), errSecCSUnsealedAppRoot},
      {"the Finder's file beside Contents", added("/../.DS_Store"), errSecSuccess},
      {"a resource", flipped("/Resources/about.txt"), errSecCSBadResource},
      {"a resource that grew", appended("/Resources/about.txt"), errSecCSBadResource},
      {"no resource", removed("/Resources/about.txt"), errSecCSBadResource},
      {"a new resource", added("/Resources/new.txt"), errSecCSBadResource},
      {"a new file in Contents", added("/new.txt"), errSecCSBadResource},
      {"a new executable", added("/MacOS/new"), errSecCSBadResource},
      {"an AppleDouble file", added("/Resources/._about.txt"), errSecCSBadResource},
      {"a localization", appended("/Resources/de.lproj/words.strings"), errSecCSBadResource},
      {"no localization, which is optional", removed("/Resources/de.lproj"), errSecSuccess},
      {"the Finder's file, which is left out", added("/Resources/.DS_Store"), errSecSuccess},
      {"the Finder's file as a link", [](const auto& c) { relink(c + "/Resources/.DS_Store", "x"); },
       errSecCSDSStoreSymlink},
      {"a link elsewhere", [](const auto& c) { relink(c + "/Resources/link", "/etc/passwd"); }, errSecCSBadResource},
      {"a file for a link",
       [](const auto& c) {
         fs::remove(c + "/Resources/link");
         write(c + "/Resources/link", "about");
       },
       errSecCSBadResource},
      {"a link for a file", [](const auto& c) { relink(c + "/Resources/about.txt", "link"); }, errSecCSBadResource},
      {"a folder for a file",
       [](const auto& c) {
         fs::remove(c + "/Resources/about.txt");
         fs::create_directory(c + "/Resources/about.txt");
       },
       errSecCSBadResource},
      {"a folder behind a link", [](const auto& c) { hideBehindLink(c + "/Resources/de.lproj", c + "/../de.lproj"); },
       errSecCSBadResource},
      {"a FIFO", [](const auto& c) { ::mkfifo((c + "/Resources/fifo").c_str(), 0600); }, errSecCSResourceNotSupported},
  });
}

TEST(BundleSignature, ReachesNestedCode) {
  expectAll({
      {"its executable", [](const auto& c) { flip(c + "/Helpers/Helper.app/Contents/MacOS/Main", 0); },
       errSecCSSignatureFailed},
      {"its resource", [](const auto& c) { append(c + "/Helpers/Helper.app/Contents/Resources/about.txt", "x"); },
       errSecCSBadResource},
      {"its signature taken off",
       [](const auto& c) { fs::remove_all(c + "/Helpers/Helper.app/Contents/_CodeSignature"); }, errSecCSUnsigned},
      {"signed by another team", [](const auto& c) { signAsOther(c + "/Helpers/Helper.app"); }, errSecCSBadNestedCode},
      {"signed anew by the maker", [](const auto& c) { SigningWorld().sign(c + "/Helpers/Helper.app"); },
       errSecSuccess},
      {"not there", [](const auto& c) { fs::remove_all(c + "/Helpers/Helper.app"); }, errSecCSBadResource},
      {"behind a link", [](const auto& c) { hideBehindLink(c + "/Helpers/Helper.app", c + "/../Helper.app"); },
       errSecCSBadResource},
      {"another one, signed by the maker",
       [](const auto& c) {
         fs::copy(c + "/Helpers/Helper.app", c + "/Helpers/Second.app", fs::copy_options::recursive);
       },
       errSecCSBadResource},
      {"the bundle's own copy in its place",
       [](const auto& c) {
         fs::remove_all(c + "/Helpers/Helper.app");
         SigningWorld world;
         fs::copy(world.bundle(), c + "/Helpers/Helper.app",
                  fs::copy_options::recursive | fs::copy_options::copy_symlinks);
         world.sign(c + "/Helpers/Helper.app");
       },
       errSecCSBadNestedCode},
      {"the current version of a framework",
       [](const auto& c) { append(c + "/Frameworks/Kit.framework/Versions/B/Kit", "x"); }, errSecCSSignatureInvalid},
      {"another version of a framework",
       [](const auto& c) { append(c + "/Frameworks/Kit.framework/Versions/A/Kit", "x"); }, errSecCSBadFrameworkVersion},
      {"another version, by another team",
       [](const auto& c) {
         const auto kit = c + "/Frameworks/Kit.framework";
         relink(kit + "/Versions/Current", "A");
         signAsOther(kit);
         relink(kit + "/Versions/Current", "B");
       },
       errSecCSBadFrameworkVersion},
      {"the other version made current",
       [](const auto& c) { relink(c + "/Frameworks/Kit.framework/Versions/Current", "A"); }, errSecSuccess},
      {"a version from elsewhere",
       [](const auto& c) { relink(c + "/Frameworks/Kit.framework/Versions/Current", "../A"); },
       errSecCSBadFrameworkVersion},
      {"a file at the framework's root", [](const auto& c) { write(c + "/Frameworks/Kit.framework/x", "x"); },
       errSecCSUnsealedFrameworkRoot},
      {"a link at the framework's root that leads away",
       [](const auto& c) { relink(c + "/Frameworks/Kit.framework/Kit", "/etc/passwd"); },
       errSecCSUnsealedFrameworkRoot},
  });
}

TEST(BundleSignature, BindsInfoPlistToTheRequirement) {
  const SigningWorld world;
  const std::string app = world.bundle();
  world.sign(app);
  const std::string base = makersRequirement;
  EXPECT_EQ(world.check(app, base + " and info [CFBundleVersion] >= \"1.9\""), errSecSuccess);
  EXPECT_EQ(world.check(app, base + " and info [CFBundleVersion] >= \"1.10.2\""), errSecSuccess);
  EXPECT_EQ(world.check(app, base + " and info [CFBundleVersion] >= \"1.10.3\""), errSecCSReqFailed);
  EXPECT_EQ(world.check(app, base + " and info [CFBundleVersion] >= \"1\"\""), errSecCSReqInvalid);
  EXPECT_EQ(world.check(app + "/Contents/MacOS/Main"), errSecSuccess);  // stands for the bundle
  EXPECT_EQ(world.check(world.path("nothing.app")), errSecCSStaticCodeNotFound);
}

/// Signs a bundle with a seal made by hand.
OSStatus statusWithSeal(const PropertyList::Dictionary& seal, HashType type) {
  const SigningWorld world;
  const std::string app = world.smallBundle(world.path("Old.app"), "com.corvane.Old", "old");
  auto request = world.request();
  request.hashTypes = {type};
  request.resourceSeal = copyOf(viewOf(PropertyList(seal).serialized(PropertyList::Format::xml)));
  world.sign(app, request);
  return world.check(app);
}

TEST(BundleSignature, AcceptsOldSealsAndRefusesBrokenOnes) {
  using Dictionary = PropertyList::Dictionary;
  const Bytes sha1 = digest(HashType::sha1, viewOf("about"));
  const Bytes sha256 = digest(HashType::sha256, viewOf("about"));
  const Dictionary rules = {{"^.*", true}, {"^Info\\.plist$", Dictionary{{"omit", true}, {"weight", 20}}}};
  const auto files = [](const PropertyList& value) { return Dictionary{{"Resources/about.txt", value}}; };
  struct Case {
    const char* name;
    Dictionary seal;
    HashType type;
    OSStatus expected;
  };
  const std::vector<Case> cases = {
      {"version 1, SHA-1 throughout", {{"rules", rules}, {"files", files(sha1)}}, HashType::sha1, errSecSuccess},
      {"version 1 beneath a SHA-256 directory",
       {{"rules", rules}, {"files", files(sha1)}},
       HashType::sha256,
       errSecCSBadResource},
      {"version 2 with both hashes",
       {{"rules2", rules}, {"files2", files(Dictionary{{"hash", sha1}, {"hash2", sha256}})}},
       HashType::sha256,
       errSecSuccess},
      {"version 2 counts alone",
       {{"rules", rules}, {"files", files(sha1)}, {"rules2", rules}, {"files2", Dictionary{}}},
       HashType::sha1,
       errSecCSBadResource},
      {"a hash cut short",
       {{"rules2", rules}, {"files2", files(Dictionary{{"hash2", Bytes(sha256.begin(), sha256.begin() + 4)}})}},
       HashType::sha256,
       errSecCSResourcesInvalid},
      {"an empty hash",
       {{"rules2", rules}, {"files2", files(Dictionary{{"hash2", Bytes()}})}},
       HashType::sha256,
       errSecCSResourcesInvalid},
      {"no files", {{"rules2", rules}}, HashType::sha256, errSecCSResourcesInvalid},
      {"a pattern that is none",
       {{"rules2", Dictionary{{"(", true}}}, {"files2", Dictionary{}}},
       HashType::sha256,
       errSecCSResourceRulesInvalid},
      {"a pattern that explodes",
       {{"rules2", Dictionary{{"((a{1,99}){1,99}){1,99}", true}}}, {"files2", Dictionary{}}},
       HashType::sha256,
       errSecCSResourceRulesInvalid},
      {"rules that leave files out",
       {{"rules2", Dictionary{{"^Nothing", true}, {"^Info", false}}}, {"files2", Dictionary{}}},
       HashType::sha256,
       errSecSuccess},
      {"a rule that leaves out what another of its weight seals",
       {{"rules2", Dictionary{{"^Info\\.", true}, {"^Info", false}}}, {"files2", Dictionary{}}},
       HashType::sha256,
       errSecCSBadResource},
      {"nested code with a requirement that is none",
       {{"rules2", Dictionary{{"^Resources/", Dictionary{{"nested", true}}}}},
        {"files2", files(Dictionary{{"requirement", "x"}})}},
       HashType::sha256,
       errSecCSResourcesInvalid},
  };
  for (const auto& [name, seal, type, expected] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(statusWithSeal(seal, type), expected);
  }
}

}  // namespace
}  // namespace codesignature_tests
