#pragma once

#include "CodeSignature/Blob.h"
#include "CodeSignature/Certificate.h"
#include "CodeSignature/CodeDirectory.h"
#include "CodeSignature/Failure.h"
#include "CodeSignature/InputFile.h"
#include "CodeSignature/Requirement.h"

#include <cstdint>
#include <string>
#include <vector>

namespace platform::codesignature {

/// A stretch of a file with a signature of its own: a disk image, one slice of a Mach-O file, or a whole file that is
/// signed from outside.
struct SignedImage {
  std::string architecture;      ///< of a slice
  std::uint64_t base = 0;        ///< where the code begins in the file
  std::uint64_t codeLength = 0;  ///< how much of it there is to sign; the signature must cover just that
  bool isDiskImage = false;
  bool isBundle = false;
  /// The signature's parts with the components around it, or why there are none.
  Result<SignatureParts> parts = failed(errSecCSUnsigned);
};

/// What a signature turned out to be.
struct VerifiedSignature {
  std::vector<CodeDirectory> directories;  ///< in the order of their slots
  CertificateChain chain;                  ///< empty for ad-hoc signed code

  /// The directory that speaks for the code.
  [[nodiscard]] const CodeDirectory& best() const;
};

/// Verifies the signature itself: its code directories, its CMS and chain. Nothing of the code is read.
[[nodiscard]] Result<VerifiedSignature> verifySignature(const SignatureParts& parts, const Anchors& anchors);

/// Compares the components that the special slots seal, from the highest slot down; the resource seal is left out.
[[nodiscard]] Result<void> checkComponents(const SignedImage& image, const VerifiedSignature& signature);

/// Compares the resource seal with its slot. errSecCSResourceDirectoryFailed when it is another one or missing,
/// errSecCSResourcesNotFound when there should be one.
[[nodiscard]] Result<void> checkResourceSealSlot(const SignedImage& image, const VerifiedSignature& signature);

/// Compares the code with the code slots of every directory.
[[nodiscard]] Result<void> checkCode(const SignedImage& image, const VerifiedSignature& signature,
                                     const InputFile& file);

/// Whether what was verified meets the requirement: errSecCSReqFailed when not.
[[nodiscard]] Result<void> checkRequirement(const SignedImage& image, const VerifiedSignature& signature,
                                            const RequirementExpression& requirement, const Anchors& anchors);

}  // namespace platform::codesignature
