#include "CodeSignature/CertificatePath.h"
#include "CodeSignature/CmsSignature.h"
#include "CodeSignature/SignedImage.h"
#include "CodeSignature/Timestamp.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <set>

namespace platform::codesignature {
namespace {

Result<std::vector<CodeDirectory>> directoriesOf(const SignatureParts& parts) {
  if (parts.codeDirectories.empty()) return failed(errSecCSUnsigned);
  std::vector<CodeDirectory> directories;
  std::set<HashType> types;
  for (const auto& blob : parts.codeDirectories) {
    auto directory = CodeDirectory::parse(blob);
    if (!directory) return std::unexpected(directory.error());
    if (!types.insert(directory->hashType()).second) return failed(errSecCSSignatureInvalid);
    directories.push_back(std::move(*directory));
  }
  return directories;
}

bool isAdHoc(const std::vector<CodeDirectory>& directories) {
  return std::ranges::any_of(directories, &CodeDirectory::isAdHoc);
}

/// With a time-stamp the path must hold at that time. Without one an expired certificate is tolerated, unless the code
/// itself asks for more; then the time the signer claims decides.
Result<CertificateChain> signerPath(const CmsSignature& cms, bool considersExpiration, const Anchors& anchors) {
  if (cms.timestampToken().empty()) {
    std::optional<std::time_t> time;
    if (considersExpiration) time = cms.signingTime().value_or(std::time(nullptr));
    return certificatePath(cms.leaf(), cms.bag(), anchors, CertificateUse::codeSigning, time);
  }
  const auto timestamp = verifyTimestamp(cms, anchors);
  if (!timestamp) return std::unexpected(timestamp.error());
  auto path = certificatePath(cms.leaf(), cms.bag(), anchors, CertificateUse::codeSigning, timestamp->time);
  // Nobody but the vendor stamps the times of what is signed under the vendor's root.
  if (path && anchors.contains(path->back()) && !anchors.contains(timestamp->chain.back())) {
    return failed(CSSMERR_TP_NOT_TRUSTED);
  }
  return path;
}

/// Whether the vendor gave this certificate to a developer, whose team it then names.
bool namesTeam(const CertificateChain& chain, const Anchors& anchors) {
  constexpr std::array markers = {"1.2.840.113635.100.6.1.2", "1.2.840.113635.100.6.1.4", "1.2.840.113635.100.6.1.7",
                                  "1.2.840.113635.100.6.1.12", "1.2.840.113635.100.6.1.13"};
  if (!anchors.contains(chain.back())) return false;
  return std::ranges::any_of(markers, [&](const char* marker) { return chain.front().hasExtension(marker); });
}

Result<void> checkTeam(const VerifiedSignature& signature, const Anchors& anchors) {
  if (signature.chain.empty() || !namesTeam(signature.chain, anchors)) return {};
  const auto units = signature.chain.front().subjectAttributes("OU");
  for (const auto& directory : signature.directories) {
    if (directory.teamIdentifier().empty()) continue;
    if (units.empty() || units.front() != directory.teamIdentifier()) return failed(errSecCSBadTeamIdentifier);
  }
  return {};
}

}  // namespace

const CodeDirectory& VerifiedSignature::best() const {
  return *std::ranges::max_element(directories, {}, [](const auto& directory) { return rank(directory.hashType()); });
}

Result<VerifiedSignature> verifySignature(const SignatureParts& parts, const Anchors& anchors) {
  auto directories = directoriesOf(parts);
  if (!directories) return std::unexpected(directories.error());
  VerifiedSignature signature{std::move(*directories), {}};
  // An ad-hoc signature is nobody's: no CMS is looked at, and the chain stays empty.
  if (isAdHoc(signature.directories)) return signature;
  if (parts.cms.empty()) return failed(errSecCSUnsigned);
  const auto cms = CmsSignature::verify(parts.cms, signature.directories);
  if (!cms) return std::unexpected(cms.error());
  const bool considersExpiration = std::ranges::any_of(signature.directories, [](const CodeDirectory& directory) {
    return (directory.flags() & CodeDirectory::flagConsiderExpiration) != 0;
  });
  auto chain = signerPath(*cms, considersExpiration, anchors);
  if (!chain) return std::unexpected(chain.error());
  signature.chain = std::move(*chain);
  if (auto team = checkTeam(signature, anchors); !team) return std::unexpected(team.error());
  return signature;
}

}  // namespace platform::codesignature
