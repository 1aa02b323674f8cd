#include "CodeSignature/DiskImage.h"

#include "CodeSignature/Blob.h"

#include <algorithm>

namespace platform::codesignature {
namespace {

constexpr std::uint32_t trailerMagic = 0x6B6F6C79;  // "koly"
constexpr std::uint32_t trailerVersion = 4;
constexpr std::uint64_t versionOffset = 4;
constexpr std::uint64_t signatureOffsetField = 296;
constexpr std::uint64_t signatureLengthField = 304;
constexpr std::uint64_t smallestImage = DiskImageTrailer::size + 8;

void putInteger(Bytes& bytes, std::uint64_t field, std::uint64_t number) {
  Bytes stored;
  appendInteger(stored, number);
  std::ranges::copy(stored, bytes.begin() + static_cast<std::ptrdiff_t>(field));
}

}  // namespace

Result<std::optional<DiskImageTrailer>> DiskImageTrailer::read(const InputFile& file) {
  if (file.size() < smallestImage) return std::nullopt;
  auto bytes = file.bytes(file.size() - size, size);
  if (!bytes) return std::unexpected(bytes.error());
  const bool isTrailer = integerAt<std::uint32_t>(*bytes, 0) == trailerMagic &&
                         integerAt<std::uint32_t>(*bytes, versionOffset) == trailerVersion;
  if (!isTrailer) return std::nullopt;
  return DiskImageTrailer(std::move(*bytes));
}

std::uint64_t DiskImageTrailer::signatureOffset() const {
  return integerAt<std::uint64_t>(bytes_, signatureOffsetField).value_or(0);
}
std::uint64_t DiskImageTrailer::signatureLength() const {
  return integerAt<std::uint64_t>(bytes_, signatureLengthField).value_or(0);
}

void DiskImageTrailer::setSignature(std::uint64_t offset, std::uint64_t length) {
  putInteger(bytes_, signatureOffsetField, offset);
  putInteger(bytes_, signatureLengthField, length);
}

Bytes DiskImageTrailer::sealedBytes() const {
  Bytes sealed = bytes_;
  putInteger(sealed, signatureLengthField, 0);
  return sealed;
}

Result<Bytes> diskImageSignature(const InputFile& file, const DiskImageTrailer& trailer) {
  const std::uint64_t end = file.size() - DiskImageTrailer::size;
  const std::uint64_t offset = trailer.signatureOffset();
  // Images from before signatures may have anything in these fields.
  if (offset == 0 || offset >= end) return Bytes();
  auto bytes = file.bytes(offset, std::min(end - offset, maximumSignatureSize));
  if (!bytes) return bytes;
  const auto superBlob = SuperBlob::parse(*bytes);
  if (!superBlob) return Bytes();
  const std::uint64_t length = superBlob->bytes().size();
  if (length != end - offset || length != trailer.signatureLength() || !superBlob->isStrictlyPacked()) {
    return failed(errSecCSBadDiskImageFormat);
  }
  return bytes;
}

}  // namespace platform::codesignature
