#pragma once

#include "CodeSignature/Certificate.h"
#include "CodeSignature/CodeDirectory.h"
#include "CodeSignature/Failure.h"

#include <ctime>
#include <optional>
#include <span>
#include <vector>

struct asn1_string_st;

namespace platform::codesignature {

/// Object identifiers of the signed attributes that bind code directories, and of a time-stamp token.
inline constexpr const char* cdhashListAttribute = "1.2.840.113635.100.9.1";
inline constexpr const char* cdhashSetAttribute = "1.2.840.113635.100.9.2";

/// More certificates than this come with no signature. The signature of each may have to be verified.
inline constexpr std::size_t maximumCertificates = 100;

/// The CMS of a code signature: detached, one signer, signed attributes. Verified when it is made; any thread.
class CmsSignature {
 public:
  /// Verifies the CMS over the first of the code directories (in the order of their slots) and that its attributes name
  /// all of them. errSecUnknownFormat when it is no CMS, else errSecCSSignatureFailed.
  static Result<CmsSignature> verify(ByteView bytes, std::span<const CodeDirectory> directories);

  [[nodiscard]] const Certificate& leaf() const { return leaf_; }
  /// All certificates that came with the signature, in no particular order.
  [[nodiscard]] const std::vector<Certificate>& bag() const { return bag_; }
  /// The time the signer claims.
  [[nodiscard]] std::optional<std::time_t> signingTime() const { return signingTime_; }
  /// The bytes a time-stamp speaks about.
  [[nodiscard]] const Bytes& signatureValue() const { return signatureValue_; }
  /// The time-stamp token; empty when there is none.
  [[nodiscard]] const Bytes& timestampToken() const { return timestampToken_; }

 private:
  explicit CmsSignature(Certificate leaf) : leaf_(std::move(leaf)) {}

  Certificate leaf_;
  std::vector<Certificate> bag_;
  std::optional<std::time_t> signingTime_;
  Bytes signatureValue_;
  Bytes timestampToken_;
};

/// Seconds since 1970 of an ASN.1 time.
[[nodiscard]] std::optional<std::time_t> timeOf(const asn1_string_st* time);

}  // namespace platform::codesignature
