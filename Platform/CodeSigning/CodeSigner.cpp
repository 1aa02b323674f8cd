#include "CodeSigning/CodeSigner.h"

#include "CodeSignature/MachO.h"

#include <filesystem>

#include <fcntl.h>

namespace platform::codesigning {

using namespace codesignature;

Signed<void> signCode(const std::string& path, const SigningRequest& request) {
  const auto place = std::filesystem::path(path).lexically_normal();
  const std::string trimmed = place.has_filename() ? place.string() : place.parent_path().string();
  std::error_code error;
  if (std::filesystem::is_directory(trimmed, error)) return signBundle(trimmed, request);
  const auto file = InputFile::open(AT_FDCWD, trimmed, InputFile::Links::follow);
  if (!file) return std::unexpected(path + ": cannot be read");
  const auto head = file->bytes(0, std::min<std::uint64_t>(file->size(), 4));
  if (head && beginsMachO(*head)) {
    return signMachO(trimmed, *file, request, {{slot::requirements, emptyRequirements()}});
  }
  return signDiskImage(trimmed, *file, request);
}

}  // namespace platform::codesigning
