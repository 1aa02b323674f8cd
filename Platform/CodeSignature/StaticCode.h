#pragma once

#include "CodeSignature/BundleLayout.h"
#include "CodeSignature/Certificate.h"
#include "CodeSignature/Failure.h"
#include "CodeSignature/InputFile.h"
#include "CodeSignature/Requirement.h"
#include "CodeSignature/SignedImage.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace platform::codesignature {

/// Code on disk and the check of its signature. The input is hostile: every length and offset is held against what it
/// must lie in, sizes and depths have limits, and every file is opened once, without following links.
///
/// Results are the platform's for its default flags. Where the platform's default is laxer than what it signs, this is
/// stricter, but refuses nothing that a signing tool produces:
///  - all slices of a fat file are checked in full, must meet the requirement and name one team; slices may leave no
///    room but zeros for alignment, and `__LINKEDIT` must end with its slice;
///  - the code limit must be where the code ends: at the signature, or at the end of a file signed from outside;
///  - a hash has the size of its algorithm; scattered code, pages above 16 MiB and empty code are refused;
///  - special slots must hold in every code directory, not only in the best; a slot may be in a SuperBlob once;
///  - a disk image must seal its trailer, a bundle its Info.plist and its resource seal;
///  - the CMS has one signer, signed attributes, no content of its own and nothing after it; alternate code directories
///    must be named by signed attributes, or they would be unsigned;
///  - nested code is checked in full to any depth up to 16, every version of a framework included, and the current one
///    and the others must meet the sealed requirement;
///  - links in the place of Contents, Info.plist, the executable, the seal or the signature's folder are refused, as
///    are devices, sockets and FIFOs among the resources;
///  - a bundle's folder holds what is sealed and the Finder's own files, the signature's folder only its own.
///
/// Left as the platform has it, because genuine code relies on it: SHA-1 alone, version 1 of the seal alone, seals
/// whose rules leave files out, nested code of another team, links out of a bundle, expired certificates without
/// time-stamp. Not here: revocation, notarization, detached signatures, signatures in extended attributes, encrypted
/// images.
class StaticCode {
 public:
  /// The code at a path of this machine; a link in its last component is followed. The main executable of a bundle
  /// stands for the bundle.
  static Result<std::shared_ptr<const StaticCode>> open(const std::string& path);

  /// Whether the signature is intact and meets the requirement, when one is given.
  [[nodiscard]] Result<void> check(const RequirementExpression* requirement, const Anchors& anchors) const;

  /// Verifies the signature alone, of a slice or whole file at a time.
  [[nodiscard]] Result<std::vector<VerifiedSignature>> signatures(const Anchors& anchors) const;

  [[nodiscard]] const std::vector<SignedImage>& images() const { return images_; }
  [[nodiscard]] const InputFile& executable() const { return bundle_ ? bundle_->executable : *file_; }

 private:
  struct Context {
    const RequirementExpression* requirement;
    const Anchors& anchors;
    int depth;
  };

  static Result<StaticCode> openAt(int directory, const std::string& name, int linkFlag);
  static Result<StaticCode> ofFile(InputFile file);
  static Result<StaticCode> ofBundle(Result<BundleLayout> layout);
  [[nodiscard]] Result<void> readImages();
  [[nodiscard]] Result<void> readSlices();
  [[nodiscard]] Result<void> readDiskImage();
  [[nodiscard]] Result<void> addBundleParts();

  [[nodiscard]] Result<void> check(const Context& context) const;
  [[nodiscard]] Result<std::vector<VerifiedSignature>> checkImages(const Context& context) const;
  [[nodiscard]] Result<void> checkBundle(const std::vector<VerifiedSignature>& signatures,
                                         const Context& context) const;
  [[nodiscard]] Result<void> checkSealedResources(const std::set<HashType>& hashTypes, const Context& context) const;
  [[nodiscard]] Result<void> checkOtherVersions(const Context& context) const;
  [[nodiscard]] static Result<void> checkNested(int directory, const std::string& name, const std::string& requirement,
                                                const Context& outer, const InputFile& outerExecutable);

  std::optional<InputFile> file_;  ///< code that is no bundle
  std::optional<BundleLayout> bundle_;
  std::string name_;
  std::vector<SignedImage> images_;
};

}  // namespace platform::codesignature
