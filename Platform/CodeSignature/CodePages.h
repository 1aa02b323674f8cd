#pragma once

#include "CodeSignature/CodeDirectory.h"
#include "CodeSignature/Failure.h"
#include "CodeSignature/InputFile.h"

#include <cstdint>

namespace platform::codesignature {

/// Compares the code that begins at `base` of the file with the code slots of the directory, reading in pieces of
/// constant size, on all cores when there are pages enough. errSecCSSignatureFailed for the first difference.
[[nodiscard]] Result<void> checkPages(const CodeDirectory& directory, const InputFile& file, std::uint64_t base);

}  // namespace platform::codesignature
