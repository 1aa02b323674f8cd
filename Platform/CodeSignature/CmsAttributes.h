#pragma once

#include "CodeSignature/CodeDirectory.h"

#include <span>

struct CMS_SignerInfo_st;

namespace platform::codesignature {

/// Whether the signed attributes that list code directories name just these. Either list may be missing, but not both
/// when there is more than one directory: only the first is what the signature itself covers.
[[nodiscard]] bool namesAll(CMS_SignerInfo_st* signer, std::span<const CodeDirectory> directories);

}  // namespace platform::codesignature
