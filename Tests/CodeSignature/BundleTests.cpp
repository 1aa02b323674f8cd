#include "CodeSignature/Digest.h"
#include "CodeSignature/ResourceRules.h"
#include "Platform/PropertyList.h"
#include "SigningWorld.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace codesignature_tests {
namespace {

using namespace platform;
using namespace platform::codesignature;
namespace fs = std::filesystem;

using Tampering = std::function<void(const std::string& contents)>;
struct Row {
  const char* name;
  OSStatus expected;
  Tampering tamper;
};

void relink(const std::string& path, const char* target) {
  fs::remove_all(path);
  fs::create_symlink(target, path);
}

// What may be done to an item of the bundle, by its path in Contents.
Tampering removed(const char* name) {
  return [name](const auto& c) { fs::remove_all(c + name); };
}
Tampering written(const char* name) {
  return [name](const auto& c) {
    fs::remove(c + name);
    write(c + name, "about");
  };
}
Tampering appended(const char* name) {
  return [name](const auto& c) { append(c + name, "x"); };
}
Tampering flipped(const char* name) {
  return [name](const auto& c) { flip(c + name, 2); };
}
Tampering linked(const char* name, const char* target) {
  return [name, target](const auto& c) { relink(c + name, target); };
}
/// Moves an item away and puts a link to it in its place.
Tampering hidden(const char* name, const char* place) {
  return [name, place](const auto& c) {
    fs::rename(c + name, c + place);
    fs::create_symlink(c + place, c + name);
  };
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
  write(folder + "\u00e9\ud55c.txt", "x");  // both, with what was sealed in both
  EXPECT_EQ(world.check(app), errSecCSBadResource);
  fs::remove(folder + "\u00e9\ud55c.txt");
  fs::rename(folder + "e\u0301\u1112\u1161\u11ab.txt", folder + "e\u0300.txt");
  EXPECT_EQ(world.check(app), errSecCSBadResource);
}

TEST(BundleSignature, HoldsUntilOneThingIsChanged) {
  expectAll({
      {"nothing", errSecSuccess, [](const auto&) {}},
      {"the executable", errSecCSSignatureFailed, flipped("/MacOS/Main")},
      {"text after the executable", errSecCSSignatureInvalid, appended("/MacOS/Main")},
      {"no executable", errSecCSSignatureInvalid, removed("/MacOS/Main")},
      {"the executable behind a link", errSecCSRegularFile, hidden("/MacOS/Main", "/Resources/Main")},
      {"Info.plist", errSecCSInfoPlistFailed, [](const auto& c) { flipAt(c + "/Info.plist", "1.10.2"); }},
      {"Info.plist that is none", errSecCSInfoPlistFailed, written("/Info.plist")},
      {"Info.plist behind a link", errSecCSRegularFile, hidden("/Info.plist", "/Resources/I")},
      {"an executable's name with a path", errSecCSBadBundleFormat,
       [](const auto& c) {
         auto text = read(c + "/Info.plist");
         write(c + "/Info.plist", text.replace(text.find("Main"), 4, "../M"));
       }},
      {"Contents behind a link", errSecCSBadBundleFormat, hidden("", ".real")},
      {"the signature's folder behind a link", errSecCSSignatureFailed, hidden("/_CodeSignature", "/S")},
      {"the seal", errSecCSResourceDirectoryFailed,
       [](const auto& c) { flipAt(c + "/_CodeSignature/CodeResources", "about"); }},
      {"no seal", errSecCSResourceDirectoryFailed, removed("/_CodeSignature/CodeResources")},
      {"no code directory", errSecCSUnsigned, removed("/_CodeSignature/CodeDirectory")},
      {"no CMS", errSecCSUnsigned, removed("/_CodeSignature/CodeSignature")},
      {"no requirements", errSecCSSignatureFailed, removed("/_CodeSignature/CodeRequirements")},
      {"no signature's folder", errSecCSUnsigned, removed("/_CodeSignature")},
      {"a stranger in the signature's folder", errSecCSUnsealedAppRoot, written("/_CodeSignature/x")},
      {"a file beside Contents", errSecCSUnsealedAppRoot, written("/../x")},
      {"the Finder's file beside Contents", errSecSuccess, written("/../.DS_Store")},
      {"a resource", errSecCSBadResource, flipped("/Resources/about.txt")},
      {"a resource that grew", errSecCSBadResource, appended("/Resources/about.txt")},
      {"no resource", errSecCSBadResource, removed("/Resources/about.txt")},
      {"a new resource", errSecCSBadResource, written("/Resources/new.txt")},
      {"a new file in Contents", errSecCSBadResource, written("/new.txt")},
      {"a new executable", errSecCSBadResource, written("/MacOS/new")},
      {"an AppleDouble file", errSecCSBadResource, written("/Resources/._about.txt")},
      {"a localization", errSecCSBadResource, appended("/Resources/de.lproj/words.strings")},
      {"no localization, which is optional", errSecSuccess, removed("/Resources/de.lproj")},
      {"the Finder's file, which is left out", errSecSuccess, written("/Resources/.DS_Store")},
      {"the Finder's file as a link", errSecCSDSStoreSymlink, linked("/Resources/.DS_Store", "x")},
      {"a link elsewhere", errSecCSBadResource, linked("/Resources/link", "/etc/passwd")},
      {"a file for a link", errSecCSBadResource, written("/Resources/link")},
      {"a link for a file", errSecCSBadResource, linked("/Resources/about.txt", "link")},
      {"a folder for a file", errSecCSBadResource,
       [](const auto& c) {
         fs::remove(c + "/Resources/about.txt");
         fs::create_directory(c + "/Resources/about.txt");
       }},
      {"a folder behind a link", errSecCSBadResource, hidden("/Resources/de.lproj", "/../de.lproj")},
      {"a FIFO", errSecCSResourceNotSupported, [](const auto& c) { ::mkfifo((c + "/Resources/fifo").c_str(), 0600); }},
  });
}

TEST(BundleSignature, ReachesNestedCode) {
  expectAll({
      {"its executable", errSecCSSignatureFailed, flipped("/Helpers/Helper.app/Contents/MacOS/Main")},
      {"its resource", errSecCSBadResource, appended("/Helpers/Helper.app/Contents/Resources/about.txt")},
      {"its signature taken off", errSecCSUnsigned, removed("/Helpers/Helper.app/Contents/_CodeSignature")},
      {"signed by another team", errSecCSBadNestedCode, [](const auto& c) { signAsOther(c + "/Helpers/Helper.app"); }},
      {"signed anew by the maker", errSecSuccess,
       [](const auto& c) { SigningWorld().sign(c + "/Helpers/Helper.app"); }},
      {"not there", errSecCSBadResource, removed("/Helpers/Helper.app")},
      {"behind a link", errSecCSBadResource, hidden("/Helpers/Helper.app", "/../Helper.app")},
      {"another one, signed by the maker", errSecCSBadResource,
       [](const auto& c) {
         fs::copy(c + "/Helpers/Helper.app", c + "/Helpers/Second.app", fs::copy_options::recursive);
       }},
      {"the bundle's own copy in its place", errSecCSBadNestedCode,
       [](const auto& c) {
         fs::remove_all(c + "/Helpers/Helper.app");
         SigningWorld world;
         fs::copy(world.bundle(), c + "/Helpers/Helper.app",
                  fs::copy_options::recursive | fs::copy_options::copy_symlinks);
         world.sign(c + "/Helpers/Helper.app");
       }},
      {"the current version of a framework", errSecCSSignatureInvalid,
       appended("/Frameworks/Kit.framework/Versions/B/Kit")},
      {"another version of a framework", errSecCSBadFrameworkVersion,
       appended("/Frameworks/Kit.framework/Versions/A/Kit")},
      {"another version, by another team", errSecCSBadFrameworkVersion,
       [](const auto& c) {
         const auto kit = c + "/Frameworks/Kit.framework";
         relink(kit + "/Versions/Current", "A");
         signAsOther(kit);
         relink(kit + "/Versions/Current", "B");
       }},
      {"the other version made current", errSecSuccess, linked("/Frameworks/Kit.framework/Versions/Current", "A")},
      {"a version from elsewhere", errSecCSBadFrameworkVersion,
       linked("/Frameworks/Kit.framework/Versions/Current", "../A")},
      {"a file at the framework's root", errSecCSUnsealedFrameworkRoot, written("/Frameworks/Kit.framework/x")},
      {"a link at the framework's root that leads away", errSecCSUnsealedFrameworkRoot,
       linked("/Frameworks/Kit.framework/Kit", "/etc/passwd")},
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

TEST(BundleSignature, AcceptsOldSealsAndRefusesBrokenOnes) {
  using Dictionary = PropertyList::Dictionary;
  const Bytes sha1 = digest(HashType::sha1, viewOf("about"));
  const Bytes sha256 = digest(HashType::sha256, viewOf("about"));
  const Dictionary rules = {{"^.*", true}, {"^Info\\.plist$", Dictionary{{"omit", true}, {"weight", 20}}}};
  const auto files = [](const PropertyList& value) { return Dictionary{{"Resources/about.txt", value}}; };
  const auto ruled = [](const PropertyList& value) { return Dictionary{{"rules2", value}, {"files2", Dictionary{}}}; };
  const auto hashed = [&](const Bytes& hash) {
    return Dictionary{{"rules2", rules}, {"files2", files(Dictionary{{"hash2", hash}})}};
  };
  struct Seal {
    const char* name;
    OSStatus expected;
    Dictionary seal;
    HashType type = HashType::sha256;
  };
  const std::vector<Seal> seals = {
      {"version 1, SHA-1 throughout", errSecSuccess, {{"rules", rules}, {"files", files(sha1)}}, HashType::sha1},
      {"version 1 beneath a SHA-256 directory", errSecCSBadResource, {{"rules", rules}, {"files", files(sha1)}}},
      {"version 2 with both hashes",
       errSecSuccess,
       {{"rules2", rules}, {"files2", files(Dictionary{{"hash", sha1}, {"hash2", sha256}})}}},
      {"version 2 counts alone",
       errSecCSBadResource,
       {{"rules", rules}, {"files", files(sha1)}, {"rules2", rules}, {"files2", Dictionary{}}},
       HashType::sha1},
      {"a hash cut short", errSecCSResourcesInvalid, hashed(Bytes(sha256.begin(), sha256.begin() + 4))},
      {"an empty hash", errSecCSResourcesInvalid, hashed({})},
      {"no files", errSecCSResourcesInvalid, {{"rules2", rules}}},
      {"a pattern that is none", errSecCSResourceRulesInvalid, ruled(Dictionary{{"(", true}})},
      {"a pattern that explodes", errSecCSResourceRulesInvalid, ruled(Dictionary{{"((a{1,99}){1,99}){1,99}", true}})},
      {"a pattern of repeated repetitions", errSecSuccess,
       ruled(Dictionary{{"Q++++++++++++++++++++++++++++++++", true}})},
      {"rules that leave files out", errSecSuccess, ruled(Dictionary{{"^Nothing", true}, {"^Info", false}})},
      {"a rule that leaves out what another of its weight seals", errSecCSBadResource,
       ruled(Dictionary{{"^Info\\.", true}, {"^Info", false}})},
      {"nested code with a requirement that is none",
       errSecCSResourcesInvalid,
       {{"rules2", Dictionary{{"^Resources/", Dictionary{{"nested", true}}}}},
        {"files2", files(Dictionary{{"requirement", "x"}})}}},
  };
  for (const auto& [name, expected, seal, type] : seals) {
    SCOPED_TRACE(name);
    const SigningWorld world;
    const std::string app = world.smallBundle(world.path("Old.app"), "com.corvane.Old", "old");
    auto request = world.request();
    request.hashTypes = {type};
    request.resourceSeal = copyOf(viewOf(PropertyList(seal).serialized(PropertyList::Format::xml)));
    world.sign(app, request);
    EXPECT_EQ(world.check(app), expected);
  }
}

TEST(ResourceRules, MatchByBytesAndAreWhatPosixSays) {
  const auto rules = ResourceRules::parse(
      PropertyList(PropertyList::Dictionary{{"^\xC3\xA9$|^\xC3\xA9..$", true}, {"^[]\\w]$", true}}));
  ASSERT_TRUE(rules);
  for (const char* path : {"\xC3\xA9", "\xC3\xA9\xC3\xA9", "\xC3\xA9\xFF\n", "]", "\\", "w"}) {
    EXPECT_TRUE(rules->verdict(path)) << path;
  }
  for (const char* path : {"\xC3", "\xC3\xA9.", "a", "\xC3\xA9\xC3\xA9\xC3\xA9"}) {
    EXPECT_FALSE(rules->verdict(path)) << path;
  }
  for (const char* pattern : {"^\\w", "^\\1", "a\\<", "a{2}", "^*a", "a|^?b", "[!-[:alpha:]]", "[!-[:a]{9}:]]",
                              "[[:word:]]", "[[=a=]]", "[[.a.]]", "a)", "\\", "[a"}) {
    EXPECT_FALSE(ResourceRules::parse(PropertyList(PropertyList::Dictionary{{pattern, true}}))) << pattern;
  }
}

}  // namespace
}  // namespace codesignature_tests
