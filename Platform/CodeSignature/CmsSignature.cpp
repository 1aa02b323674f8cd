#include "CodeSignature/CmsSignature.h"

#include "CodeSignature/CmsAttributes.h"
#include "CodeSignature/OpenSSLHandle.h"

#include <algorithm>
#include <array>
#include <ctime>

namespace platform::codesignature {
namespace {

constexpr int onlyValueOfOnlyAttribute = -3;

/// The message and nothing after it.
CmsHandle decoded(ByteView bytes) {
  const unsigned char* position = bytes.data();
  CmsHandle cms(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(bytes.size())));
  if (!cms || position != bytes.data() + bytes.size()) return nullptr;
  return cms;
}

/// Absent unless the message has just the shape of a code signature's.
CMS_SignerInfo* onlySigner(CMS_ContentInfo* cms) {
  if (OBJ_obj2nid(CMS_get0_type(cms)) != NID_pkcs7_signed) return nullptr;
  if (CMS_is_detached(cms) != 1 || OBJ_obj2nid(CMS_get0_eContentType(cms)) != NID_pkcs7_data) return nullptr;
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
  if (signers == nullptr || sk_CMS_SignerInfo_num(signers) != 1) return nullptr;
  CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(signers, 0);
  return CMS_signed_get_attr_count(signer) > 0 ? signer : nullptr;
}

int nameOf(const X509_ALGOR* algorithm) {
  const ASN1_OBJECT* object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
  return OBJ_obj2nid(object);
}

/// A digest that is not broken, and a signature algorithm that goes with it and with the leaf's key.
bool hasAcceptableAlgorithms(CMS_SignerInfo* signer) {
  constexpr std::array acceptable = {NID_sha1, NID_sha256, NID_sha384, NID_sha512};
  EVP_PKEY* key = nullptr;
  X509_ALGOR* digestAlgorithm = nullptr;
  X509_ALGOR* signatureAlgorithm = nullptr;
  CMS_SignerInfo_get0_algs(signer, &key, nullptr, &digestAlgorithm, &signatureAlgorithm);
  const int digestName = nameOf(digestAlgorithm);
  if (std::ranges::find(acceptable, digestName) == acceptable.end()) return false;
  const int keyName = EVP_PKEY_get_base_id(key);
  const int signatureName = nameOf(signatureAlgorithm);
  if (signatureName == keyName) return true;
  int signedDigest = NID_undef;
  int signingKey = NID_undef;
  if (OBJ_find_sigid_algs(signatureName, &signedDigest, &signingKey) != 1) return false;
  return signedDigest == digestName && signingKey == keyName;
}

/// Signed attributes must say what was signed: data that is just this content, once.
bool hasContentType(CMS_SignerInfo* signer) {
  const ObjectHandle type(OBJ_nid2obj(NID_pkcs9_contentType));
  const auto* value = static_cast<const ASN1_OBJECT*>(
      CMS_signed_get0_data_by_OBJ(signer, type.get(), onlyValueOfOnlyAttribute, V_ASN1_OBJECT));
  return value != nullptr && OBJ_obj2nid(value) == NID_pkcs7_data;
}

std::optional<std::time_t> signingTimeOf(CMS_SignerInfo* signer) {
  const int index = CMS_signed_get_attr_by_NID(signer, NID_pkcs9_signingTime, -1);
  if (index < 0) return std::nullopt;
  const ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(signer, index), 0);
  if (value == nullptr || (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME)) return std::nullopt;
  return timeOf(value->value.asn1_string);
}

/// The token; empty without unsigned attributes. Where there are any, one must be a token.
Result<Bytes> timestampTokenOf(CMS_SignerInfo* signer) {
  if (CMS_unsigned_get_attr_count(signer) <= 0) return Bytes();
  const ObjectHandle type(OBJ_nid2obj(NID_id_smime_aa_timeStampToken));
  const auto* token = static_cast<const ASN1_STRING*>(
      CMS_unsigned_get0_data_by_OBJ(signer, type.get(), onlyValueOfOnlyAttribute, V_ASN1_SEQUENCE));
  if (token == nullptr) return failed(errSecCSSignatureFailed);
  const unsigned char* data = ASN1_STRING_get0_data(token);
  return Bytes(data, data + ASN1_STRING_length(token));
}

bool verifiesContent(CMS_ContentInfo* cms, ByteView content) {
  BioHandle memory(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  // Of memory CMS_verify would make a copy, which OpenSSL before 3.0.20 leaks when the message names no known digest;
  // what lies behind a filter it reads as it is.
  const BioHandle reader(BIO_new(BIO_f_null()));
  if (!memory || !reader) return false;
  BIO_push(reader.get(), memory.release());
  // Without CMS_BINARY the content would be read as text with line ends to be made canonical.
  return CMS_verify(cms, nullptr, nullptr, reader.get(), nullptr, CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1;
}

std::vector<Certificate> certificatesOf(CMS_ContentInfo* cms) {
  const CertificateStack stack(CMS_get1_certs(cms));
  std::vector<Certificate> certificates;
  for (int i = 0; stack && i < sk_X509_num(stack.get()); ++i) certificates.emplace_back(sk_X509_value(stack.get(), i));
  return certificates;
}

}  // namespace

Result<CmsSignature> CmsSignature::verify(ByteView bytes, std::span<const CodeDirectory> directories) {
  const CmsHandle cms = decoded(bytes);
  if (!cms) return failed(errSecUnknownFormat);
  CMS_SignerInfo* signer = onlySigner(cms.get());
  if (signer == nullptr || !hasContentType(signer)) {
    return failed(errSecCSSignatureFailed);
  }
  // Verifying finds the signer's certificate, and with it the key.
  if (!verifiesContent(cms.get(), directories.front().bytes())) return failed(errSecCSSignatureFailed);
  if (!hasAcceptableAlgorithms(signer)) return failed(errSecCSSignatureFailed);
  if (!namesAll(signer, directories)) return failed(errSecCSSignatureFailed);
  X509* leaf = nullptr;
  CMS_SignerInfo_get0_algs(signer, nullptr, &leaf, nullptr, nullptr);
  auto token = timestampTokenOf(signer);
  if (!token) return std::unexpected(token.error());

  CmsSignature result{Certificate(leaf)};
  result.bag_ = certificatesOf(cms.get());
  if (result.bag_.size() > maximumCertificates) return failed(errSecCSSignatureFailed);
  result.signingTime_ = signingTimeOf(signer);
  const ASN1_OCTET_STRING* value = CMS_SignerInfo_get0_signature(signer);
  const unsigned char* data = ASN1_STRING_get0_data(value);
  result.signatureValue_.assign(data, data + ASN1_STRING_length(value));
  result.timestampToken_ = std::move(*token);
  return result;
}

std::optional<std::time_t> timeOf(const asn1_string_st* time) {
  std::tm parts = {};
  if (ASN1_TIME_to_tm(time, &parts) != 1) return std::nullopt;
  return ::timegm(&parts);
}

}  // namespace platform::codesignature
