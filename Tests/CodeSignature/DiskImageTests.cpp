#include "CodeSignature/CodeDirectory.h"
#include "CodeSignature/DiskImage.h"
#include "SigningWorld.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace codesignature_tests {
namespace {

using namespace platform;
using namespace platform::codesignature;
using codesigning::superBlobOf;

using Tampering = std::function<void(const std::string& image)>;
struct Row {
  const char* name;
  OSStatus expected;
  Tampering tamper;
};

/// Of an image that is signed before it is tampered with.
void expectAll(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const SigningWorld world;
    const std::string image = world.image();
    world.sign(image);
    row.tamper(image);
    EXPECT_EQ(world.check(image), row.expected);
  }
}

Tampering inSignature(const std::function<void(SignatureParts&)>& change) {
  return [change](const std::string& image) {
    auto parts = signatureOf(image);
    change(parts);
    replaceSignature(image, superBlobOf(parts));
  };
}

/// A directory as the maker would make it, over `length` bytes of the image.
Bytes directoryFor(const std::string& image, HashType type, std::uint64_t length, std::uint32_t flags = 0) {
  const auto file = InputFile::open(AT_FDCWD, image, InputFile::Links::follow);
  codesigning::SigningRequest request;
  request.identity = &SigningWorld::maker().identity;
  request.identifier = "Orvik";
  request.flags = flags;
  auto components = signatureOf(image).components;
  components.emplace(slot::repSpecific, Bytes(DiskImageTrailer::size));
  return codesigning::makeCodeDirectory(request, type, components, {*file, 0, length}).value();
}

/// An image signed anew with directories of one's choice, in proper form.
Tampering signedWith(std::vector<HashType> types, codesigning::DirectoryAttributes attributes) {
  return [types, attributes](const std::string& image) {
    auto request = codesigning::SigningRequest{&SigningWorld::maker().identity, "Orvik", true, types, 0, {}, {}};
    SigningWorld().sign(image, request);
    auto parts = signatureOf(image);
    std::vector<CodeDirectory> directories;
    for (const auto& blob : parts.codeDirectories) directories.push_back(CodeDirectory::parse(blob).value());
    parts.cms = codesigning::makeCms(*request.identity, directories, attributes).value();
    replaceSignature(image, superBlobOf(parts));
  };
}

TEST(DiskImageSignature, HoldsUntilOneThingIsChanged) {
  const auto patched = [](std::int64_t offset) { return [offset](const std::string& image) { flip(image, offset); }; };
  const auto at = [](const char* text) { return [text](const std::string& image) { flipAt(image, text); }; };
  const std::int64_t trailer = -512;
  expectAll({
      {"nothing", errSecSuccess, [](const std::string&) {}},
      {"first byte of the code", errSecCSSignatureFailed, patched(0)},
      {"last byte of the code", errSecCSSignatureFailed,
       [](const auto& image) { flip(image, static_cast<std::int64_t>(codeEnd(image)) - 1); }},
      {"a field of the trailer", errSecCSSignatureFailed, patched(trailer + 216)},
      {"a reserved byte of the trailer", errSecCSSignatureFailed, patched(-1)},
      {"the trailer's magic", errSecCSUnsigned, patched(trailer)},
      {"the trailer's signature length", errSecCSBadDiskImageFormat, patched(trailer + 311)},
      {"the trailer's signature offset, beyond the end", errSecCSUnsigned, patched(trailer + 296)},
      {"a byte after the trailer", errSecCSUnsigned, [](const auto& image) { append(image, "x"); }},
      {"a byte between signature and trailer", errSecCSBadDiskImageFormat,
       [](const auto& image) {
         const auto bytes = read(image);
         write(image, bytes.substr(0, bytes.size() - 512) + "x" + bytes.substr(bytes.size() - 512));
       }},
      {"the SuperBlob's magic", errSecCSUnsigned, at("\xFA\xDE\x0C\xC0")},
      {"the code directory's magic", errSecCSSignatureInvalid, at("\xFA\xDE\x0C\x02")},
      {"the identifier", errSecCSSignatureFailed, at("Orvik")},
      {"the team", errSecCSSignatureFailed, at("K4TQ9Z7M2P")},
      {"the requirements", errSecCSSignatureFailed,
       inSignature([](auto& parts) { parts.components[slot::requirements].back() ^= 1; })},
      {"requirements left out", errSecCSSignatureFailed,
       inSignature([](auto& parts) { parts.components.erase(slot::requirements); })},
      {"the signature value", errSecCSSignatureFailed, inSignature([](auto& parts) { parts.cms.back() ^= 1; })},
      {"a signed attribute", errSecCSSignatureFailed, at("cdhashes")},
      {"a byte after the CMS", errSecUnknownFormat, inSignature([](auto& parts) { parts.cms.push_back(0); })},
      {"no CMS", errSecCSUnsigned, inSignature([](auto& parts) { parts.cms.clear(); })},
      {"no code directory", errSecCSUnsigned, inSignature([](auto& parts) { parts.codeDirectories.clear(); })},
      {"a component that no slot seals", errSecSuccess,
       inSignature([](auto& parts) { parts.components[slot::entitlements] = codesigning::emptyRequirements(); })},
      {"the same directory twice", errSecCSSignatureInvalid,
       inSignature([](auto& parts) { parts.codeDirectories.push_back(parts.codeDirectories[0]); })},
      {"a forged alternate directory", errSecCSSignatureFailed,
       [](const auto& image) {
         const auto forged = directoryFor(image, HashType::sha384, codeEnd(image));
         inSignature([&](auto& parts) { parts.codeDirectories.push_back(forged); })(image);
       }},
      {"turned into ad-hoc code", errSecCSSignatureFailed,
       [](const auto& image) {
         const auto adHoc = directoryFor(image, HashType::sha384, codeEnd(image), CodeDirectory::flagAdHoc);
         inSignature([&](auto& parts) { parts.codeDirectories = {adHoc}; })(image);
       }},
  });
}

TEST(DiskImageSignature, AcceptsTheFormsThatAreSignedAndNoOthers) {
  using enum codesigning::DirectoryAttributes;
  using enum HashType;
  expectAll({
      {"SHA-1 alone", errSecSuccess, signedWith({sha1}, named)},
      {"SHA-1 with its alternate", errSecSuccess, signedWith({sha1, sha256}, named)},
      {"three directories", errSecSuccess, signedWith({sha256, sha256Truncated, sha384}, named)},
      {"one directory, not named by attributes", errSecSuccess, signedWith({sha256}, leftOut)},
      {"an alternate not named by attributes", errSecCSSignatureFailed, signedWith({sha1, sha256}, leftOut)},
  });
}

TEST(DiskImageSignature, CoversAllPagesUpToTheSignature) {
  const SigningWorld world;
  const std::string image = world.image();
  auto request = world.request();
  request.pageShift = 12;
  world.sign(image, request);
  EXPECT_EQ(world.check(image), errSecSuccess);
  for (const std::int64_t offset : {0, 4095, 4096, 19999}) {
    flip(image, offset);
    EXPECT_EQ(world.check(image), errSecCSSignatureFailed) << offset;
    flip(image, offset);
  }
  EXPECT_EQ(world.check(image), errSecSuccess);
}

TEST(DiskImageSignature, MustCoverAllCodeAndTheTrailer) {
  struct Case {
    const char* name;
    std::uint64_t shorterBy;
    bool sealsTrailer;
    OSStatus expected;
  };
  const std::vector<Case> cases = {{"all of it", 0, true, errSecSuccess},
                                   {"code up to a byte before the signature", 1, true, errSecCSSignatureInvalid},
                                   {"a trailer that is not sealed", 0, false, errSecCSSignatureFailed}};
  for (const auto& [name, shorterBy, sealsTrailer, expected] : cases) {
    SCOPED_TRACE(name);
    const SigningWorld world;
    const std::string image = world.image();
    world.sign(image);
    const auto file = InputFile::open(AT_FDCWD, image, InputFile::Links::follow);
    codesigning::Components components = {{slot::requirements, codesigning::emptyRequirements()}};
    if (sealsTrailer) components.emplace(slot::repSpecific, DiskImageTrailer::read(*file)->value().sealedBytes());
    auto request = world.request();
    request.identifier = "Orvik";
    const auto parts = codesigning::makeSignature(request, components, {*file, 0, codeEnd(image) - shorterBy});
    replaceSignature(image, superBlobOf(*parts));
    EXPECT_EQ(world.check(image), expected);
  }
}

TEST(DiskImageSignature, RefusesSuperBlobsThatAreNotStrictlyPacked) {
  const SigningWorld world;
  const std::string image = world.image();
  world.sign(image);
  Bytes superBlob = superBlobOf(signatureOf(image));
  superBlob.insert(superBlob.end(), 4, 0);
  superBlob[6] = static_cast<std::uint8_t>(superBlob.size() >> 8U);
  superBlob[7] = static_cast<std::uint8_t>(superBlob.size());
  replaceSignature(image, superBlob);
  EXPECT_EQ(world.check(image), errSecCSBadDiskImageFormat);
}

TEST(DiskImageSignature, AdHocCodeIsValidAndNobodys) {
  const SigningWorld world;
  const std::string image = world.image();
  auto request = world.request();
  request.identity = nullptr;
  world.sign(image, request);
  EXPECT_EQ(world.check(image, ""), errSecSuccess);
  EXPECT_EQ(world.check(image), errSecCSReqFailed);
  EXPECT_EQ(world.check(image, "! certificate leaf[subject.OU] absent and identifier Orvik"), errSecSuccess);
}

TEST(DiskImageSignature, SigningAnewReplacesTheSignature) {
  const SigningWorld world;
  const std::string image = world.image();
  world.sign(image);
  const auto size = std::filesystem::file_size(image);
  flip(image, 5);
  world.sign(image);
  EXPECT_EQ(world.check(image), errSecSuccess);
  EXPECT_NEAR(static_cast<double>(std::filesystem::file_size(image)), static_cast<double>(size), 8);
}

TEST(DiskImageSignature, NoInputOfAnyLengthIsReadBeyondItsEnd) {
  const SigningWorld world;
  // The root is left out of the signature: what that says of a root is not needed when it is an anchor.
  const auto made = rehearsal::makeSigningIdentity().value();
  const auto anchors = Anchors::fromPEM(made.anchors).value();
  const auto identity = codesigning::Identity::fromPEM(made.identity.substr(0, made.identity.rfind("-----BEGIN")));
  auto request = world.request();
  request.identity = &*identity;
  const std::string image = world.image();
  world.sign(image, request);
  EXPECT_EQ(world.check(image, makersRequirement, anchors), errSecSuccess);
  const std::string bytes = read(image);
  const std::size_t signature = codeEnd(image);
  // Every third byte in turn. Before the CMS each one counts; of the CMS some are covered by nothing (its version, the
  // list of digests), so there it is enough that the sanitizers find no fault.
  const std::size_t cms = bytes.find("\xFA\xDE\x0B\x01", signature);
  ASSERT_NE(cms, std::string::npos);
  for (std::size_t i = signature; i < bytes.size(); i += 3) {
    std::string changed = bytes;
    changed[i] = static_cast<char>(~changed[i]);
    write(image, changed);
    const auto status = world.check(image, makersRequirement, anchors);
    if (i < cms) {
      EXPECT_NE(status, errSecSuccess) << i - signature;
    }
  }
  for (std::size_t length = 0; length < bytes.size(); length += 97) {
    write(image, bytes.substr(0, length));
    EXPECT_NE(world.check(image, makersRequirement, anchors), errSecSuccess) << length;
  }
}

}  // namespace
}  // namespace codesignature_tests
