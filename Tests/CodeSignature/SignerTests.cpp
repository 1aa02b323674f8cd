#include "CodeSignature/CodeDirectory.h"
#include "SigningWorld.h"

#include <gtest/gtest.h>

namespace codesignature_tests {
namespace {

using namespace platform;
using namespace platform::codesignature;
using Plan = rehearsal::SigningIdentityPlan;

TEST(Signer, MustBeTheMaker) {
  struct Row {
    const char* name;
    OSStatus expected;
    Plan plan = {};
    std::uint32_t flags = 0;
  };
  constexpr std::uint32_t expires = CodeDirectory::flagConsiderExpiration;
  const std::vector<Row> rows = {
      {"the maker", errSecSuccess},
      {"another team", errSecCSReqFailed, {.organizationalUnits = {"9JKQ000000"}}},
      {"no team", errSecCSReqFailed, {.organizationalUnits = {}}},
      {"the maker's team first of two", errSecCSReqFailed, {.organizationalUnits = {"K4TQ9Z7M2P", "9JKQ000000"}}},
      {"no marker in the leaf", errSecCSReqFailed, {.hasLeafMarker = false}},
      {"no marker in the intermediate", errSecCSReqFailed, {.hasIntermediateMarker = false}},
      {"markers as extended key uses",
       errSecCSReqFailed,
       {.hasLeafMarker = false, .extendedKeyUsage = "codeSigning,1.2.840.113635.100.6.1.13"}},
      {"no extended key use", CSSMERR_APPLETP_INVALID_EXTENDED_KEY_USAGE, {.extendedKeyUsage = ""}},
      {"any extended key use", CSSMERR_APPLETP_INVALID_EXTENDED_KEY_USAGE, {.extendedKeyUsage = "anyExtendedKeyUsage"}},
      {"a server's key use", CSSMERR_APPLETP_INVALID_EXTENDED_KEY_USAGE, {.extendedKeyUsage = "serverAuth"}},
      {"a key not for signing", CSSMERR_APPLETP_INVALID_KEY_USAGE, {.keyUsage = "keyEncipherment"}},
      {"no key use", CSSMERR_APPLETP_INVALID_KEY_USAGE, {.keyUsage = ""}},
      {"an unknown critical extension",
       CSSMERR_APPLETP_UNKNOWN_CRITICAL_EXTEN,
       {.unknownCriticalExtension = "1.2.3.4"}},
      {"a known critical extension", errSecSuccess, {.unknownCriticalExtension = "1.2.840.113635.100.6.1.99"}},
      {"expired", errSecSuccess, {.validFromDays = -20, .validUntilDays = -10}},
      {"expired and minded", CSSMERR_TP_CERT_EXPIRED, {.validFromDays = -20, .validUntilDays = -10}, expires},
      {"not valid yet", CSSMERR_TP_CERT_NOT_VALID_YET, {.validFromDays = 10, .validUntilDays = 20}, expires},
      {"valid, where the code minds", errSecSuccess, {}, expires},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const SigningWorld world;
    const Maker maker = makerLike(row.plan);
    auto request = world.request();
    request.identity = &maker.identity;
    request.flags = row.flags;
    const std::string image = world.image();
    world.sign(image, request);
    EXPECT_EQ(world.check(image, makersRequirement, maker.anchors), row.expected);
  }
}

TEST(Signer, IsJudgedByTheRequirementNotByTheRoot) {
  const SigningWorld world;
  const Maker other = makerLike({});
  auto request = world.request();
  request.identity = &other.identity;
  const std::string image = world.image();
  world.sign(image, request);
  EXPECT_EQ(world.check(image), errSecCSReqFailed);
  EXPECT_EQ(world.check(image, ""), errSecSuccess);
  EXPECT_EQ(world.check(image, makersRequirement, Anchors::platformDefault()), errSecCSReqFailed);
}

TEST(Signer, NeedsAWholeChain) {
  const SigningWorld world;
  const auto made = rehearsal::makeSigningIdentity().value();
  // Without the root at the end, and without the intermediate above the leaf.
  const std::string rootless = made.identity.substr(0, made.identity.rfind("-----BEGIN"));
  const std::string leafOnly = rootless.substr(0, rootless.rfind("-----BEGIN"));
  const auto anchors = Anchors::fromPEM(made.anchors).value();
  for (const auto& [text, expected] : {std::pair{rootless, errSecSuccess}, {leafOnly, CSSMERR_TP_NOT_TRUSTED}}) {
    const auto identity = codesigning::Identity::fromPEM(text);
    auto request = world.request();
    request.identity = &*identity;
    const std::string image = world.image();
    world.sign(image, request);
    EXPECT_EQ(world.check(image, makersRequirement, anchors), expected);
    EXPECT_EQ(world.check(image), CSSMERR_TP_NOT_TRUSTED);
  }
}

TEST(Signer, CannotClaimATeamThatIsNotItsOwn) {
  const SigningWorld world;
  const Maker other = makerLike({.organizationalUnits = {"9JKQ000000"}});
  const std::string image = world.image();
  world.sign(image);
  // The maker's own directory, honestly named by the other's signature.
  auto parts = signatureOf(image);
  const std::vector directories = {CodeDirectory::parse(parts.codeDirectories.front()).value()};
  parts.cms = codesigning::makeCms(other.identity, directories).value();
  replaceSignature(image, codesigning::superBlobOf(parts));
  EXPECT_EQ(world.check(image, "", other.anchors), errSecCSBadTeamIdentifier);
}

}  // namespace
}  // namespace codesignature_tests
