#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSigning/SigningError.h"

#include <string>

namespace platform::codesigning {

/// Makes the `CodeResources` of the bundle whose sealed folder is at `root` by the default rules of version 2.
/// `mainExecutable` is the executable's path below it.
[[nodiscard]] Signed<codesignature::Bytes> makeResourceSeal(const std::string& root, const std::string& mainExecutable);

}  // namespace platform::codesigning
