#include "CodeSignature/Timestamp.h"

#include "CodeSignature/CertificatePath.h"
#include "CodeSignature/OpenSSLHandle.h"

namespace platform::codesignature {
namespace {

Pkcs7Handle decoded(const Bytes& token) {
  const unsigned char* position = token.data();
  Pkcs7Handle message(d2i_PKCS7(nullptr, &position, static_cast<long>(token.size())));
  if (!message || position != token.data() + token.size()) return nullptr;
  return PKCS7_type_is_signed(message.get()) ? std::move(message) : nullptr;
}

/// The hash the token is about, of SHA-1 or SHA-256.
bool speaksAbout(TS_TST_INFO* info, const Bytes& signatureValue) {
  TS_MSG_IMPRINT* imprint = TS_TST_INFO_get_msg_imprint(info);
  const ASN1_OBJECT* name = nullptr;
  X509_ALGOR_get0(&name, nullptr, nullptr, TS_MSG_IMPRINT_get_algo(imprint));
  const int algorithmName = OBJ_obj2nid(name);
  if (algorithmName != NID_sha256 && algorithmName != NID_sha1) return false;
  const Bytes expected = digest(algorithmName == NID_sha256 ? HashType::sha256 : HashType::sha1, signatureValue);
  const ASN1_OCTET_STRING* message = TS_MSG_IMPRINT_get_msg(imprint);
  const ByteView found(ASN1_STRING_get0_data(message), static_cast<std::size_t>(ASN1_STRING_length(message)));
  return std::ranges::equal(found, expected);
}

/// The certificates of the token, then those of the signature: a token may leave out what came with that.
std::vector<Certificate> bagOf(const PKCS7* token, const CmsSignature& signature) {
  std::vector<Certificate> bag;
  const STACK_OF(X509)* certificates = token->d.sign->cert;
  for (int i = 0; certificates != nullptr && i < sk_X509_num(certificates); ++i) {
    bag.emplace_back(sk_X509_value(certificates, i));
  }
  bag.insert(bag.end(), signature.bag().begin(), signature.bag().end());
  return bag;
}

/// Store and bag for OpenSSL's own check, which adds that the token names its signer's certificate.
bool holds(PKCS7* token, const CertificateChain& chain, std::time_t time) {
  StoreHandle store(X509_STORE_new());
  X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(store.get()), time);
  X509_STORE_set_flags(store.get(), X509_V_FLAG_IGNORE_CRITICAL);
  X509_STORE_add_cert(store.get(), chain.back().handle());
  CertificateStack certificates(sk_X509_new_null());
  for (const auto& certificate : chain) {
    X509_up_ref(certificate.handle());
    sk_X509_push(certificates.get(), certificate.handle());
  }
  const VerifyContextHandle context(TS_VERIFY_CTX_new());
  TS_VERIFY_CTX_set_flags(context.get(), TS_VFY_VERSION | TS_VFY_SIGNATURE);
  TS_VERIFY_CTX_set_store(context.get(), store.release());
  TS_VERIFY_CTX_set_certs(context.get(), certificates.release());
  return TS_RESP_verify_token(context.get(), token) == 1;
}

std::optional<Certificate> onlySignerOf(PKCS7* token, const std::vector<Certificate>& bag) {
  const STACK_OF(PKCS7_SIGNER_INFO)* signers = PKCS7_get_signer_info(token);
  if (sk_PKCS7_SIGNER_INFO_num(signers) != 1) return std::nullopt;
  const PKCS7_ISSUER_AND_SERIAL* wanted = sk_PKCS7_SIGNER_INFO_value(signers, 0)->issuer_and_serial;
  for (const auto& certificate : bag) {
    X509* x509 = certificate.handle();
    if (X509_NAME_cmp(X509_get_issuer_name(x509), wanted->issuer) == 0 &&
        ASN1_INTEGER_cmp(X509_get0_serialNumber(x509), wanted->serial) == 0) {
      return certificate;
    }
  }
  return std::nullopt;
}

}  // namespace

Result<Timestamp> verifyTimestamp(const CmsSignature& signature, const Anchors& anchors) {
  const Pkcs7Handle token = decoded(signature.timestampToken());
  if (!token) return failed(errSecCSSignatureFailed);
  const TstInfoHandle info(PKCS7_to_TS_TST_INFO(token.get()));
  if (!info || !speaksAbout(info.get(), signature.signatureValue())) return failed(errSecCSSignatureFailed);
  const auto time = timeOf(TS_TST_INFO_get_time(info.get()));
  const auto bag = bagOf(token.get(), signature);
  if (bag.size() > 2 * maximumCertificates) return failed(errSecCSSignatureFailed);
  const auto signer = onlySignerOf(token.get(), bag);
  if (!time || !signer) return failed(errSecCSSignatureFailed);
  auto chain = certificatePath(*signer, bag, anchors, CertificateUse::timestamping, time);
  if (!chain || !holds(token.get(), *chain, *time)) return failed(errSecCSSignatureFailed);
  return Timestamp{*time, std::move(*chain)};
}

}  // namespace platform::codesignature
