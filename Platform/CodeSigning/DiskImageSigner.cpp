#include "CodeSignature/DiskImage.h"
#include "CodeSigning/CodeSigner.h"
#include "CodeSigning/OutputFile.h"

#include <filesystem>

#include <sys/stat.h>

namespace platform::codesigning {

using namespace codesignature;

Signed<void> signDiskImage(const std::string& path, const InputFile& image, SigningRequest request) {
  auto trailer = DiskImageTrailer::read(image);
  if (!trailer || !*trailer) return std::unexpected(path + ": not a disk image");
  const auto existing = diskImageSignature(image, **trailer);
  // An image whose signature is damaged still says where its code ends.
  const bool isSigned = !existing || !existing->empty();
  if (isSigned && !request.replacesSignature) return std::unexpected(path + ": is already signed");
  const std::uint64_t end = isSigned ? (*trailer)->signatureOffset() : image.size() - DiskImageTrailer::size;
  (*trailer)->setSignature(end, 0);
  if (request.identifier.empty()) request.identifier = std::filesystem::path(path).stem().string();

  const Components components = {{slot::requirements, emptyRequirements()},
                                 {slot::repSpecific, (*trailer)->sealedBytes()}};
  const auto parts = makeSignature(request, components, {image, 0, end});
  if (!parts) return std::unexpected(parts.error());
  const Bytes superBlob = superBlobOf(*parts);
  (*trailer)->setSignature(end, superBlob.size());
  auto output = OutputFile::create(path);
  if (!output) return std::unexpected(output.error());
  auto done = output->append(image, 0, end);
  if (done) done = output->append(superBlob);
  if (done) done = output->append((*trailer)->bytes());
  struct stat status = {};
  ::fstat(image.descriptor(), &status);
  return done ? output->commit(status.st_mode) : done;
}

}  // namespace platform::codesigning
