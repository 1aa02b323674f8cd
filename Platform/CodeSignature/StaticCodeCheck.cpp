#include "CodeSignature/DirectoryListing.h"
#include "CodeSignature/ResourceCheck.h"
#include "CodeSignature/ResourceSeal.h"
#include "CodeSignature/StaticCode.h"

#include <set>

#include <fcntl.h>

namespace platform::codesignature {
namespace {

constexpr int maximumNesting = 16;

Failure inArchitecture(Failure failure, const SignedImage& image) {
  if (!image.architecture.empty()) failure.userInfo.emplace(kSecCFErrorArchitecture, image.architecture);
  return failure;
}

bool nameOneTeam(const std::vector<VerifiedSignature>& signatures) {
  for (const auto& signature : signatures) {
    if (signature.best().teamIdentifier() != signatures.front().best().teamIdentifier()) return false;
  }
  return true;
}

std::set<HashType> hashTypesOf(const std::vector<VerifiedSignature>& signatures) {
  std::set<HashType> types;
  for (const auto& signature : signatures) {
    for (const auto& directory : signature.directories) types.insert(directory.hashType());
  }
  return types;
}

}  // namespace

Result<void> StaticCode::check(const RequirementExpression* requirement, const Anchors& anchors) const {
  return check(Context{requirement, anchors, 0});
}

Result<std::vector<VerifiedSignature>> StaticCode::signatures(const Anchors& anchors) const {
  std::vector<VerifiedSignature> signatures;
  for (const auto& image : images_) {
    if (!image.parts) return std::unexpected(image.parts.error());
    auto signature = verifySignature(*image.parts, anchors);
    if (!signature) return std::unexpected(signature.error());
    signatures.push_back(std::move(*signature));
  }
  return signatures;
}

Result<void> StaticCode::check(const Context& context) const {
  const auto signatures = checkImages(context);
  if (!signatures) return std::unexpected(signatures.error());
  if (!nameOneTeam(*signatures)) return failed(errSecCSSignatureInvalid);
  return bundle_ ? checkBundle(*signatures, context) : Result<void>();
}

Result<std::vector<VerifiedSignature>> StaticCode::checkImages(const Context& context) const {
  std::vector<VerifiedSignature> signatures;
  for (const auto& image : images_) {
    if (!image.parts) return std::unexpected(inArchitecture(image.parts.error(), image));
    auto signature = verifySignature(*image.parts, context.anchors);
    if (!signature) return std::unexpected(inArchitecture(std::move(signature.error()), image));
    auto done = checkComponents(image, *signature);
    if (done) done = checkCode(image, *signature, executable());
    if (done && context.requirement != nullptr) {
      done = checkRequirement(image, *signature, *context.requirement, context.anchors);
    }
    if (!done) return std::unexpected(inArchitecture(std::move(done.error()), image));
    signatures.push_back(std::move(*signature));
  }
  return signatures;
}

Result<void> StaticCode::checkBundle(const std::vector<VerifiedSignature>& signatures, const Context& context) const {
  for (std::size_t i = 0; i < images_.size(); ++i) {
    if (auto done = checkResourceSealSlot(images_[i], signatures[i]); !done) return done;
  }
  if (auto done = checkSealedResources(hashTypesOf(signatures), context); !done) return done;
  if (auto done = bundle_->checkRoot(); !done) return done;
  return checkOtherVersions(context);
}

Result<void> StaticCode::checkSealedResources(const std::set<HashType>& hashTypes, const Context& context) const {
  const auto& bytes = images_.front().parts->components.at(slot::resourceSeal);
  const auto seal = ResourceSeal::parse(bytes);
  if (!seal) return std::unexpected(seal.error());
  const auto nested = [&](int directory, const std::string& name, const std::string& requirement) {
    return checkNested(directory, name, requirement, context, executable());
  };
  return checkResources(bundle_->sealedRoot.get(), bundle_->executablePath, *seal, hashTypes, nested);
}

Result<void> StaticCode::checkNested(int directory, const std::string& name, const std::string& requirement,
                                     const Context& outer, const InputFile& outerExecutable) {
  if (outer.depth >= maximumNesting) return failed(errSecCSBadNestedCode);
  const auto compiled = compileRequirement(requirement);
  if (!compiled) return failed(errSecCSResourcesInvalid);
  const auto code = openAt(directory, name, O_NOFOLLOW);
  if (!code) return std::unexpected(code.error());
  if (code->executable().isSameFile(outerExecutable)) return failed(errSecCSBadResource);
  auto result = code->check(Context{compiled->get(), outer.anchors, outer.depth + 1});
  if (!result && result.error().status == errSecCSReqFailed) result.error().status = errSecCSBadNestedCode;
  return result;
}

Result<void> StaticCode::checkOtherVersions(const Context& context) const {
  const auto names = bundle_->otherVersions();
  if (!names) return std::unexpected(names.error());
  for (const auto& version : *names) {
    auto folder = openBeneath(bundle_->root.get(), "Versions/" + version, O_RDONLY | O_DIRECTORY);
    if (!folder) return failed(errSecCSBadFrameworkVersion);
    const auto code = ofBundle(BundleLayout::openVersion(std::move(*folder), name_));
    if (!code || !code->check(context)) return failed(errSecCSBadFrameworkVersion, kSecCFErrorPath, version);
  }
  return {};
}

}  // namespace platform::codesignature
