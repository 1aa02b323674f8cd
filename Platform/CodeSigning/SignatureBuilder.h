#pragma once

#include "CodeSignature/Blob.h"
#include "CodeSignature/Bytes.h"
#include "CodeSignature/CodeDirectory.h"
#include "CodeSignature/Digest.h"
#include "CodeSignature/InputFile.h"
#include "CodeSigning/Identity.h"
#include "CodeSigning/SigningError.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace platform::codesigning {

/// How code is to be signed.
struct SigningRequest {
  const Identity* identity = nullptr;  ///< null signs ad hoc
  std::string identifier;              ///< empty: from the bundle identifier, else the file's name
  bool replacesSignature = false;      ///< whether code that is signed already may be signed anew
  /// One code directory for each; the first is what the CMS covers, the others are its alternates.
  std::vector<codesignature::HashType> hashTypes = {codesignature::HashType::sha256};
  std::uint32_t flags = 0;
  /// Logarithm of the page size; absent: 4 KiB for Mach-O, one page for all else.
  std::optional<std::uint8_t> pageShift;
  /// Instead of a seal made with the default rules.
  std::optional<codesignature::Bytes> resourceSeal;
};

/// Code in a file: `length` bytes from `base` on.
struct CodeRange {
  const codesignature::InputFile& file;
  std::uint64_t base;
  std::uint64_t length;
};

/// Components by special slot: the bytes that their slots hash.
using Components = std::map<std::uint32_t, codesignature::Bytes>;

/// Makes the code directories and the CMS over them.
[[nodiscard]] Signed<codesignature::SignatureParts> makeSignature(const SigningRequest& request, Components components,
                                                                  const CodeRange& code);

/// One code directory.
[[nodiscard]] Signed<codesignature::Bytes> makeCodeDirectory(const SigningRequest& request,
                                                             codesignature::HashType hashType,
                                                             const Components& components, const CodeRange& code);

/// Whether the signed attributes name the code directories, as every signing tool of today has it.
enum class DirectoryAttributes { named, leftOut };

/// The detached CMS over the first of the directories.
[[nodiscard]] Signed<codesignature::Bytes> makeCms(const Identity& identity,
                                                   std::span<const codesignature::CodeDirectory> directories,
                                                   DirectoryAttributes attributes = DirectoryAttributes::named);

/// Puts the parts that are not files of a bundle into a SuperBlob, strictly packed.
[[nodiscard]] codesignature::Bytes superBlobOf(const codesignature::SignatureParts& parts);

/// A requirement set without requirements.
[[nodiscard]] codesignature::Bytes emptyRequirements();

}  // namespace platform::codesigning
