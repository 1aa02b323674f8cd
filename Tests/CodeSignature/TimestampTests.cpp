#include "CodeSignature/Digest.h"
#include "CodeSignature/OpenSSLHandle.h"
#include "SigningWorld.h"

#include <gtest/gtest.h>

namespace codesignature_tests {
namespace {

using namespace platform;
using namespace platform::codesignature;
using Plan = rehearsal::SigningIdentityPlan;

constexpr long secondsPerDay = 86400;
using RequestHandle = OpenSSLHandle<TS_REQ, TS_REQ_free>;
using ResponseHandle = OpenSSLHandle<TS_RESP, TS_RESP_free>;
using AuthorityHandle = OpenSSLHandle<TS_RESP_CTX, TS_RESP_CTX_free>;

RequestHandle requestFor(const Bytes& imprint) {
  RequestHandle request(TS_REQ_new());
  const OpenSSLHandle<TS_MSG_IMPRINT, TS_MSG_IMPRINT_free> message(TS_MSG_IMPRINT_new());
  const OpenSSLHandle<X509_ALGOR, X509_ALGOR_free> sha256(X509_ALGOR_new());
  X509_ALGOR_set_md(sha256.get(), EVP_sha256());
  TS_MSG_IMPRINT_set_algo(message.get(), sha256.get());
  Bytes hash = imprint;
  TS_MSG_IMPRINT_set_msg(message.get(), hash.data(), static_cast<int>(hash.size()));
  TS_REQ_set_version(request.get(), 1);
  TS_REQ_set_msg_imprint(request.get(), message.get());
  TS_REQ_set_cert_req(request.get(), 1);
  return request;
}

/// The token of an authority for a hash, as of so many days from now.
Bytes tokenBy(const codesigning::Identity& authority, const Bytes& imprint, long days) {
  const AuthorityHandle context(TS_RESP_CTX_new());
  const OpenSSLHandle<STACK_OF(X509), [](STACK_OF(X509) * stack) { sk_X509_free(stack); }> chain(sk_X509_new_null());
  for (const auto& certificate : authority.certificates()) sk_X509_push(chain.get(), certificate.handle());
  const ObjectHandle policy(OBJ_txt2obj("1.2.3.4", 1));
  TS_RESP_CTX_set_signer_cert(context.get(), authority.leaf().handle());
  TS_RESP_CTX_set_signer_key(context.get(), authority.key());
  TS_RESP_CTX_set_certs(context.get(), chain.get());
  TS_RESP_CTX_set_def_policy(context.get(), policy.get());
  TS_RESP_CTX_set_signer_digest(context.get(), EVP_sha256());
  TS_RESP_CTX_add_md(context.get(), EVP_sha256());
  TS_RESP_CTX_set_time_cb(
      context.get(),
      [](TS_RESP_CTX*, void* offset, long* seconds, long*) {
        *seconds = std::time(nullptr) + *static_cast<long*>(offset) * secondsPerDay;
        return 1;
      },
      &days);
  const BioHandle bio(BIO_new(BIO_s_mem()));
  i2d_TS_REQ_bio(bio.get(), requestFor(imprint).get());
  const ResponseHandle response(TS_RESP_create_response(context.get(), bio.get()));
  PKCS7* token = response ? TS_RESP_get_token(response.get()) : nullptr;
  if (token == nullptr) return {};
  Bytes der(static_cast<std::size_t>(i2d_PKCS7(token, nullptr)));
  unsigned char* position = der.data();
  i2d_PKCS7(token, &position);
  return der;
}

Bytes signatureValueOf(const Bytes& cms) {
  const unsigned char* position = cms.data();
  const CmsHandle message(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(cms.size())));
  const ASN1_OCTET_STRING* value =
      CMS_SignerInfo_get0_signature(sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(message.get()), 0));
  return {ASN1_STRING_get0_data(value), ASN1_STRING_get0_data(value) + ASN1_STRING_length(value)};
}

/// The message with one more attribute that is not signed.
Bytes withAttribute(const Bytes& cms, int name, int type, const Bytes& value) {
  const unsigned char* position = cms.data();
  const CmsHandle message(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(cms.size())));
  CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(message.get()), 0);
  CMS_unsigned_add1_attr_by_NID(signer, name, type, value.data(), static_cast<int>(value.size()));
  Bytes der(static_cast<std::size_t>(i2d_CMS_ContentInfo(message.get(), nullptr)));
  unsigned char* end = der.data();
  i2d_CMS_ContentInfo(message.get(), &end);
  return der;
}

TEST(Timestamp, DecidesTheTimeOfTheSignature) {
  const Plan past = {.validFromDays = -20, .validUntilDays = -10};
  const Plan ofThatTime = {.extendedKeyUsage = "timeStamping", .validFromDays = -16, .validUntilDays = -14};
  struct Row {
    const char* name;
    Plan signer = {};
    long day = 0;
    OSStatus expected = errSecSuccess;
    Plan authority = {.extendedKeyUsage = "timeStamping", .validFromDays = -100};
    bool hasAnchoredAuthority = true;
    bool isOfAnotherSignature = false;
    int attribute = NID_id_smime_aa_timeStampToken;
  };
  const std::vector<Row> rows = {
      {"now"},
      {"while the signer was valid", past, -15},
      {"after the signer expired", past, -5, CSSMERR_TP_CERT_EXPIRED},
      {"before the signer was valid", past, -50, CSSMERR_TP_CERT_NOT_VALID_YET},
      {"an authority that has expired since", past, -15, errSecSuccess, ofThatTime},
      {"an authority that had expired then", past, -12, errSecCSSignatureFailed, ofThatTime},
      {.name = "of another signature", .expected = errSecCSSignatureFailed, .isOfAnotherSignature = true},
      {.name = "under a root that is no anchor", .expected = CSSMERR_TP_NOT_TRUSTED, .hasAnchoredAuthority = false},
      {.name = "another attribute", .expected = errSecCSSignatureFailed, .attribute = NID_pkcs9_countersignature},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const SigningWorld world;
    const auto signer = rehearsal::makeSigningIdentity(row.signer).value();
    const auto stamper = rehearsal::makeSigningIdentity(row.authority).value();
    const auto signing = codesigning::Identity::fromPEM(signer.identity);
    const auto stamping = codesigning::Identity::fromPEM(stamper.identity);
    auto request = world.request();
    request.identity = &*signing;
    const std::string image = world.image();
    world.sign(image, request);
    auto parts = signatureOf(image);
    const Bytes value = row.isOfAnotherSignature ? Bytes(70, 1) : signatureValueOf(parts.cms);
    const Bytes stamp = tokenBy(*stamping, digest(HashType::sha256, value), row.day);
    ASSERT_FALSE(stamp.empty());
    parts.cms = withAttribute(parts.cms, row.attribute, V_ASN1_SEQUENCE, stamp);
    replaceSignature(image, codesigning::superBlobOf(parts));
    const std::string anchors = signer.anchors + (row.hasAnchoredAuthority ? stamper.anchors : std::string());
    EXPECT_EQ(world.check(image, makersRequirement, Anchors::fromPEM(anchors).value()), row.expected);
    // A byte of the token, wherever it is, is part of what must hold.
    parts.cms[parts.cms.size() - 5] ^= 1;
    replaceSignature(image, codesigning::superBlobOf(parts));
    EXPECT_NE(world.check(image, makersRequirement, Anchors::fromPEM(anchors).value()), errSecSuccess);
  }
}

}  // namespace
}  // namespace codesignature_tests
