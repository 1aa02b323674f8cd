#include "CodeSignature/CertificatePath.h"
#include "CodeSignature/CmsAttributes.h"
#include "CodeSignature/OpenSSLHandle.h"
#include "CodeSignature/SignedImage.h"
#include "CodeSigning/SignatureBuilder.h"
#include "FuzzMaker.h"
#include "FuzzSupport.h"
#include "Rehearsal/SigningIdentity.h"

#include <fcntl.h>

namespace {

using namespace platform;
using namespace platform::codesignature;

/// Somebody who signs whatever comes: what is behind the signature's check is reached with any code directory.
const codesigning::Identity& signer() {
  static const auto identity = codesigning::Identity::fromPEM(rehearsal::makeSigningIdentity()->identity).value();
  return identity;
}

const InputFile& code() {
  static const fuzz::MemoryFile file;
  file.write(fuzz::signedText());
  static const InputFile opened = std::move(InputFile::open(AT_FDCWD, file.path(), InputFile::Links::follow).value());
  return opened;
}

std::vector<CodeDirectory> directoriesOf(const SignatureParts& parts) {
  std::vector<CodeDirectory> directories;
  for (const auto& blob : parts.codeDirectories) {
    auto directory = CodeDirectory::parse(blob);
    if (!directory) return {};
    directories.push_back(std::move(*directory));
  }
  return directories;
}

/// The CMS below the check of its digests, which nothing changed would pass.
void readCms(const Bytes& cms, std::span<const CodeDirectory> directories, const Anchors& anchors) {
  const unsigned char* position = cms.data();
  const CmsHandle message(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(cms.size())));
  STACK_OF(CMS_SignerInfo)* signers = message ? CMS_get0_SignerInfos(message.get()) : nullptr;
  if (signers == nullptr || sk_CMS_SignerInfo_num(signers) < 1) return;
  static_cast<void>(namesAll(sk_CMS_SignerInfo_value(signers, 0), directories));
  const CertificateStack stack(CMS_get1_certs(message.get()));
  std::vector<Certificate> bag;
  for (int i = 0; stack && i < sk_X509_num(stack.get()); ++i) bag.emplace_back(sk_X509_value(stack.get(), i));
  for (const auto& leaf : bag) {
    const auto path = certificatePath(leaf, bag, anchors, CertificateUse::codeSigning, std::nullopt);
    if (path) fuzz::require(path->back().isSelfSigned() || anchors.contains(path->back()));
  }
}

/// What passes must have what it is said to have.
void checkAll(const SignedImage& image, const VerifiedSignature& signature, const Anchors& anchors) {
  static const auto requirement =
      compileRequirement(std::string(fuzz::makersRequirement) + " or entitlement[a] ~ b").value();
  const auto& components = image.parts->components;
  const CodeDirectory& best = signature.best();
  if (checkComponents(image, signature)) {
    for (std::uint32_t number = 1; number <= slot::lastSpecial; ++number) {
      const bool isSealed = number != slot::resourceSeal && best.specialSlot(number);
      fuzz::require(!isSealed || components.contains(number));
    }
  }
  if (checkCode(image, signature, code())) fuzz::require(best.codeLimit() == code().size());
  if (checkRequirement(image, signature, *requirement, anchors)) {
    const bool isMakers = !signature.chain.empty() && anchors.contains(signature.chain.back());
    fuzz::require(isMakers || components.contains(slot::entitlements));
  }
}

}  // namespace

/// A signature's SuperBlob: its code directories, components and CMS, first as they are and then signed anew.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto anchors = Anchors::fromPEM(fuzz::makersRoot).value();
  const auto superBlob = SuperBlob::parse({data, size});
  if (!superBlob) return 0;
  auto parts = partsOf(*superBlob);
  if (!parts) return 0;
  SignedImage image{.codeLength = code().size(), .parts = std::move(*parts)};
  if (const auto signature = verifySignature(*image.parts, anchors)) checkAll(image, *signature, anchors);
  const auto directories = directoriesOf(*image.parts);
  if (directories.empty()) return 0;
  readCms(image.parts->cms, directories, anchors);
  image.parts->cms = codesigning::makeCms(signer(), directories).value();
  const auto anew = verifySignature(*image.parts, anchors);
  fuzz::require(anew || anew.error().status == errSecCSSignatureInvalid);  // two directories of one hash type
  if (anew) checkAll(image, *anew, anchors);
  return 0;
}
