#include "CodeSignature/SignedImage.h"

#include "CodeSignature/CodePages.h"
#include "CodeSignature/RequirementEvaluator.h"

#include <algorithm>

namespace platform::codesignature {
namespace {

OSStatus mismatchStatus(std::uint32_t slotNumber) {
  if (slotNumber == slot::infoPlist) return errSecCSInfoPlistFailed;
  return slotNumber == slot::resourceSeal ? errSecCSResourceDirectoryFailed : errSecCSSignatureFailed;
}

/// Components that no genuine signature leaves out where they exist.
bool mustBeSealed(const SignedImage& image, std::uint32_t slotNumber) {
  if (image.isDiskImage) return slotNumber == slot::repSpecific;
  return image.isBundle && (slotNumber == slot::infoPlist || slotNumber == slot::resourceSeal);
}

/// What the slot of one directory says against the component there is.
Result<void> checkSlot(const SignedImage& image, const CodeDirectory& directory, std::uint32_t slotNumber) {
  const auto& components = image.parts->components;
  const auto component = components.find(slotNumber);
  const auto hash = directory.specialSlot(slotNumber);
  if (!hash) {
    const bool isLoose = component != components.end() && mustBeSealed(image, slotNumber);
    return isLoose ? Result<void>(failed(mismatchStatus(slotNumber))) : Result<void>();
  }
  if (component == components.end()) return failed(mismatchStatus(slotNumber));
  if (!std::ranges::equal(*hash, digest(directory.hashType(), component->second))) {
    return failed(mismatchStatus(slotNumber));
  }
  return {};
}

Result<void> checkSlotEverywhere(const SignedImage& image, const VerifiedSignature& signature,
                                 std::uint32_t slotNumber) {
  for (const auto& directory : signature.directories) {
    if (auto done = checkSlot(image, directory, slotNumber); !done) return done;
  }
  return {};
}

/// The slots a top directory must list, in its order.
Bytes expectedTopDirectory(const SignedImage& image) {
  Bytes expected;
  appendInteger(expected, slot::codeDirectory);
  for (const auto& [slotNumber, component] : image.parts->components) appendInteger(expected, slotNumber);
  for (std::uint32_t i = 1; i < image.parts->codeDirectories.size(); ++i) {
    appendInteger(expected, slot::firstAlternate + i - 1);
  }
  if (!image.parts->cms.empty()) appendInteger(expected, slot::cms);
  return expected;
}

/// A component that the best directory vouches for, as a property list.
std::optional<PropertyList> boundDictionary(const SignedImage& image, const VerifiedSignature& signature,
                                            std::uint32_t slotNumber, std::size_t headerSize) {
  const auto component = image.parts->components.find(slotNumber);
  if (component == image.parts->components.end() || !signature.best().specialSlot(slotNumber)) return std::nullopt;
  if (component->second.size() < headerSize) return std::nullopt;
  auto parsed = PropertyList::parse(textOf(ByteView(component->second).subspan(headerSize)));
  if (!parsed) return std::nullopt;
  return std::move(*parsed);
}

}  // namespace

Result<void> checkComponents(const SignedImage& image, const VerifiedSignature& signature) {
  for (std::uint32_t slotNumber = slot::lastSpecial; slotNumber > 0; --slotNumber) {
    if (slotNumber == slot::resourceSeal) continue;
    if (auto done = checkSlotEverywhere(image, signature, slotNumber); !done) return done;
  }
  const auto& components = image.parts->components;
  const auto topDirectory = components.find(slot::topDirectory);
  const bool isListed = topDirectory != components.end() && signature.best().specialSlot(slot::topDirectory);
  if (isListed && topDirectory->second != expectedTopDirectory(image)) return failed(errSecCSSignatureFailed);
  return {};
}

Result<void> checkResourceSealSlot(const SignedImage& image, const VerifiedSignature& signature) {
  const bool hasSeal = image.parts->components.contains(slot::resourceSeal);
  if (image.isBundle && !hasSeal && !signature.best().specialSlot(slot::resourceSeal)) {
    return failed(errSecCSResourcesNotFound);
  }
  return checkSlotEverywhere(image, signature, slot::resourceSeal);
}

Result<void> checkCode(const SignedImage& image, const VerifiedSignature& signature, const InputFile& file) {
  for (const auto& directory : signature.directories) {
    // Code beyond the limit would be nobody's; a limit beyond the code would reach into the signature.
    if (directory.codeLimit() != image.codeLength) return failed(errSecCSSignatureInvalid);
    if (auto done = checkPages(directory, file, image.base); !done) return done;
  }
  return {};
}

Result<void> checkRequirement(const SignedImage& image, const VerifiedSignature& signature,
                              const RequirementExpression& requirement, const Anchors& anchors) {
  const auto info = boundDictionary(image, signature, slot::infoPlist, 0);
  const auto entitlements = boundDictionary(image, signature, slot::entitlements, blobHeaderSize);
  const CodeDirectory& best = signature.best();
  const RequirementSubject subject{.chain = signature.chain,
                                   .anchors = anchors,
                                   .identifier = best.identifier(),
                                   .cdhash = best.cdhash(),
                                   .platformNumber = best.platformNumber(),
                                   .infoPlist = info ? &*info : nullptr,
                                   .entitlements = entitlements ? &*entitlements : nullptr};
  return meets(subject, requirement) ? Result<void>() : failed(errSecCSReqFailed);
}

}  // namespace platform::codesignature
