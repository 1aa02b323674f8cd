#pragma once

#include "CodeSignature/Certificate.h"
#include "CodeSignature/CmsSignature.h"
#include "CodeSignature/Failure.h"

#include <ctime>

namespace platform::codesignature {

/// A verified time-stamp: when, and the chain of who says so.
struct Timestamp {
  std::time_t time;
  CertificateChain chain;
};

/// Verifies the RFC 3161 token of a signature that has one: its signer, at the time it states, and that it speaks about
/// this signature. errSecCSSignatureFailed when it does not hold.
[[nodiscard]] Result<Timestamp> verifyTimestamp(const CmsSignature& signature, const Anchors& anchors);

}  // namespace platform::codesignature
