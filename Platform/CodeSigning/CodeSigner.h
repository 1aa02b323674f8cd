#pragma once

#include "CodeSignature/InputFile.h"
#include "CodeSigning/SignatureBuilder.h"
#include "CodeSigning/SigningError.h"

#include <string>

namespace platform::codesigning {

/// Signs the bundle, disk image or Mach-O file at a path of this machine. Nested code must be signed already. Files are
/// replaced one at a time, each all at once.
[[nodiscard]] Signed<void> signCode(const std::string& path, const SigningRequest& request);

[[nodiscard]] Signed<void> signDiskImage(const std::string& path, const codesignature::InputFile& image,
                                         SigningRequest request);

/// Signs every slice of a Mach-O file with the same components.
[[nodiscard]] Signed<void> signMachO(const std::string& path, const codesignature::InputFile& file,
                                     const SigningRequest& request, const Components& components);

[[nodiscard]] Signed<void> signBundle(const std::string& path, SigningRequest request);

}  // namespace platform::codesigning
