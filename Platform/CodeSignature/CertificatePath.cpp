#include "CodeSignature/CertificatePath.h"

#include "CodeSignature/OpenSSLHandle.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

namespace platform::codesignature {
namespace {

constexpr int maximumPathLength = 10;
constexpr int minimumRSABits = 1024;

/// Arcs of the vendor's own extensions, which may be critical.
constexpr std::array<std::string_view, 5> knownArcs = {"1.2.840.113635.100.6.", "1.2.840.113635.100.11.",
                                                       "1.2.840.113635.100.12.", "1.2.840.113635.100.13.",
                                                       "1.2.840.113635.100.15."};

struct CertificateListFree {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using BorrowedStack = std::unique_ptr<STACK_OF(X509), CertificateListFree>;

OSStatus statusOf(int verifyError) {
  switch (verifyError) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return CSSMERR_TP_CERT_EXPIRED;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return CSSMERR_TP_CERT_NOT_VALID_YET;
    // Whoever it names as its issuer did not issue it.
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_CERT_CHAIN_TOO_LONG:
      return CSSMERR_TP_NOT_TRUSTED;
    default:
      return CSSMERR_TP_INVALID_CERTIFICATE;
  }
}

std::vector<Certificate> selfSigned(const std::vector<Certificate>& bag) {
  std::vector<Certificate> roots;
  std::ranges::copy_if(bag, std::back_inserter(roots), &Certificate::isSelfSigned);
  return roots;
}

StoreHandle storeOf(const std::vector<Certificate>& roots) {
  StoreHandle store(X509_STORE_new());
  for (const auto& root : roots) X509_STORE_add_cert(store.get(), root.handle());
  return store;
}

BorrowedStack stackOf(const std::vector<Certificate>& certificates) {
  BorrowedStack stack(sk_X509_new_null());
  for (const auto& certificate : certificates) sk_X509_push(stack.get(), certificate.handle());
  return stack;
}

Result<CertificateChain> pathTo(const std::vector<Certificate>& roots, const Certificate& leaf,
                                const std::vector<Certificate>& bag, std::optional<std::time_t> time) {
  const StoreHandle store = storeOf(roots);
  const BorrowedStack untrusted = stackOf(bag);
  const StoreContextHandle context(X509_STORE_CTX_new());
  if (X509_STORE_CTX_init(context.get(), store.get(), leaf.handle(), untrusted.get()) != 1) {
    return failed(CSSMERR_TP_INVALID_CERTIFICATE);
  }
  // Critical extensions and uses are judged below: OpenSSL knows neither the vendor's extensions nor code signing.
  X509_VERIFY_PARAM* parameters = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_flags(parameters, X509_V_FLAG_IGNORE_CRITICAL);
  X509_VERIFY_PARAM_set_purpose(parameters, X509_PURPOSE_ANY);
  X509_VERIFY_PARAM_set_depth(parameters, maximumPathLength);
  if (time) {
    X509_VERIFY_PARAM_set_time(parameters, *time);
  } else {
    X509_VERIFY_PARAM_set_flags(parameters, X509_V_FLAG_NO_CHECK_TIME);
  }
  if (X509_verify_cert(context.get()) != 1) return failed(statusOf(X509_STORE_CTX_get_error(context.get())));
  const STACK_OF(X509)* path = X509_STORE_CTX_get0_chain(context.get());
  CertificateChain chain;
  for (int i = 0; i < sk_X509_num(path); ++i) chain.emplace_back(sk_X509_value(path, i));
  return chain;
}

/// An anchor's path where there is one, else one to a root in the bag. Never both sorts at a time: roots of one name
/// and different keys would be taken for each other.
Result<CertificateChain> builtPath(const Certificate& leaf, const std::vector<Certificate>& bag, const Anchors& anchors,
                                   std::optional<std::time_t> time) {
  auto anchored = pathTo(anchors.certificates(), leaf, bag, time);
  if (anchored) return anchored;
  auto rooted = pathTo(selfSigned(bag), leaf, bag, time);
  if (rooted || rooted.error().status != CSSMERR_TP_NOT_TRUSTED) return rooted;
  return anchored;
}

bool isKnownExtension(X509_EXTENSION* extension) {
  if (X509_supported_extension(extension) == 1) return true;
  std::array<char, 128> text = {};
  if (OBJ_obj2txt(text.data(), text.size(), X509_EXTENSION_get_object(extension), 1) <= 0) return false;
  const std::string_view identifier(text.data());
  return std::ranges::any_of(knownArcs, [&](std::string_view arc) { return identifier.starts_with(arc); });
}

bool hasUnknownCriticalExtension(const Certificate& certificate) {
  for (int i = 0; i < X509_get_ext_count(certificate.handle()); ++i) {
    X509_EXTENSION* extension = X509_get_ext(certificate.handle(), i);
    if (X509_EXTENSION_get_critical(extension) != 0 && !isKnownExtension(extension)) return true;
  }
  return false;
}

bool hasWeakKey(const Certificate& certificate) {
  const EVP_PKEY* key = X509_get0_pubkey(certificate.handle());
  if (key == nullptr) return true;
  return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA && EVP_PKEY_get_bits(key) < minimumRSABits;
}

bool isSignedWeakly(const Certificate& certificate) {
  int digest = NID_undef;
  OBJ_find_sigid_algs(X509_get_signature_nid(certificate.handle()), &digest, nullptr);
  return digest == NID_md2 || digest == NID_md4 || digest == NID_md5;
}

Result<void> checkPath(const CertificateChain& chain) {
  for (std::size_t i = 0; i < chain.size(); ++i) {
    const bool isRoot = i + 1 == chain.size();
    if (hasUnknownCriticalExtension(chain[i])) return failed(CSSMERR_APPLETP_UNKNOWN_CRITICAL_EXTEN);
    if (hasWeakKey(chain[i])) return failed(CSSMERR_TP_INVALID_CERTIFICATE);
    // What a root's signature says of itself is worth nothing either way.
    if (!isRoot && isSignedWeakly(chain[i])) return failed(CSSMERR_TP_INVALID_CERTIFICATE);
    if (i > 0 && !isRoot && X509_check_ca(chain[i].handle()) != 1) return failed(CSSMERR_TP_INVALID_CERTIFICATE);
  }
  return {};
}

/// Both extensions must be there: a certificate that does not say what it is for is not for this.
Result<void> checkUse(const Certificate& leaf, CertificateUse use) {
  const std::uint32_t wanted = use == CertificateUse::codeSigning ? XKU_CODE_SIGN : XKU_TIMESTAMP;
  const std::uint32_t extendedUse = X509_get_extended_key_usage(leaf.handle());
  if (extendedUse == UINT32_MAX || (extendedUse & wanted) == 0) {
    return failed(CSSMERR_APPLETP_INVALID_EXTENDED_KEY_USAGE);
  }
  const std::uint32_t keyUse = X509_get_key_usage(leaf.handle());
  if (keyUse == UINT32_MAX || (keyUse & (KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION)) == 0) {
    return failed(CSSMERR_APPLETP_INVALID_KEY_USAGE);
  }
  return {};
}

}  // namespace

Result<CertificateChain> certificatePath(const Certificate& leaf, const std::vector<Certificate>& bag,
                                         const Anchors& anchors, CertificateUse use, std::optional<std::time_t> time) {
  auto chain = builtPath(leaf, bag, anchors, time);
  if (!chain) return chain;
  if (auto sound = checkPath(*chain); !sound) return std::unexpected(sound.error());
  if (auto usable = checkUse(leaf, use); !usable) return std::unexpected(usable.error());
  return chain;
}

}  // namespace platform::codesignature
