#pragma once

#include "CodeSignature/Certificate.h"
#include "CodeSignature/Failure.h"

#include <ctime>
#include <optional>
#include <vector>

namespace platform::codesignature {

/// What a certificate is to be used for; decides what its extensions must say.
enum class CertificateUse { codeSigning, timestamping };

/// Builds and verifies the path from `leaf` to a root out of `bag` and the anchors. As on the platform any certificate
/// that is signed with its own key will do as a root: trust comes from the requirement. Validity periods are judged at
/// `time`, or not at all when there is none. CSSMERR_TP_… for what is wrong.
[[nodiscard]] Result<CertificateChain> certificatePath(const Certificate& leaf, const std::vector<Certificate>& bag,
                                                       const Anchors& anchors, CertificateUse use,
                                                       std::optional<std::time_t> time);

}  // namespace platform::codesignature
