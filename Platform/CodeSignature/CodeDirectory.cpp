#include "CodeSignature/CodeDirectory.h"

#include "CodeSignature/Blob.h"

#include <algorithm>

namespace platform::codesignature {
namespace {

constexpr std::uint32_t oldestVersion = 0x20001;
constexpr std::uint32_t newestVersion = 0x2F000;
constexpr std::uint32_t versionWithScatter = 0x20100;
constexpr std::uint32_t versionWithTeam = 0x20200;
constexpr std::uint32_t versionWithLongLimit = 0x20300;
constexpr std::uint8_t maximumPageShift = 24;

constexpr std::uint64_t versionOffset = 8;
constexpr std::uint64_t flagsOffset = 12;
constexpr std::uint64_t hashesOffset = 16;
constexpr std::uint64_t identifierOffset = 20;
constexpr std::uint64_t specialSlotsOffset = 24;
constexpr std::uint64_t codeSlotsOffset = 28;
constexpr std::uint64_t codeLimitOffset = 32;
constexpr std::uint64_t hashSizeOffset = 36;
constexpr std::uint64_t hashTypeOffset = 37;
constexpr std::uint64_t platformOffset = 38;
constexpr std::uint64_t pageShiftOffset = 39;
constexpr std::uint64_t scatterOffset = 44;
constexpr std::uint64_t teamOffset = 48;
constexpr std::uint64_t longLimitOffset = 56;

/// Bytes a header must have for the fields its version promises, up to the ones read here.
std::size_t headerSize(std::uint32_t version) {
  if (version >= versionWithLongLimit) return 64;
  if (version >= versionWithTeam) return 52;
  return version >= versionWithScatter ? 48 : 44;
}

}  // namespace

Result<CodeDirectory> CodeDirectory::parse(Bytes blob) {
  CodeDirectory directory(std::move(blob));
  auto done = directory.readHeader();
  if (done) done = directory.readCodeLimit();
  if (done) done = directory.readNames();
  if (done) done = directory.checkSlots();
  if (!done) return std::unexpected(done.error());
  return directory;
}

/// A field that headerSize() has already been checked to cover.
std::uint32_t CodeDirectory::field(std::uint64_t offset) const {
  return integerAt<std::uint32_t>(blob_, offset).value_or(0);
}

Result<void> CodeDirectory::readHeader() {
  if (blob_.size() < headerSize(oldestVersion)) return failed(errSecCSSignatureFailed);
  if (field(0) != magic::codeDirectory || field(4) != blob_.size()) return failed(errSecCSSignatureInvalid);
  version_ = field(versionOffset);
  if (version_ < oldestVersion || version_ > newestVersion) return failed(errSecCSSignatureUnsupported);
  if (blob_.size() < headerSize(version_)) return failed(errSecCSSignatureFailed);
  const auto type = hashTypeOf(blob_[hashTypeOffset]);
  if (!type) return failed(errSecCSSignatureUnsupported);
  if (version_ >= versionWithScatter && field(scatterOffset) != 0) return failed(errSecCSSignatureUnsupported);
  flags_ = field(flagsOffset);
  hashType_ = *type;
  hashSize_ = blob_[hashSizeOffset];
  hashOffset_ = field(hashesOffset);
  specialSlotCount_ = field(specialSlotsOffset);
  codeSlotCount_ = field(codeSlotsOffset);
  return {};
}

Result<void> CodeDirectory::readCodeLimit() {
  codeLimit_ = field(codeLimitOffset);
  if (version_ >= versionWithLongLimit) {
    const auto longLimit = integerAt<std::uint64_t>(blob_, longLimitOffset).value_or(0);
    if (longLimit != 0) codeLimit_ = longLimit;
  }
  const std::uint8_t shift = blob_[pageShiftOffset];
  if (codeLimit_ == 0 || shift > maximumPageShift) return failed(errSecCSSignatureFailed);
  pageSize_ = shift == 0 ? codeLimit_ : std::uint64_t{1} << shift;
  return {};
}

Result<void> CodeDirectory::readNames() {
  const auto identifier = textAt(field(identifierOffset));
  if (!identifier) return failed(errSecCSSignatureFailed);
  identifier_ = *identifier;
  if (version_ < versionWithTeam || field(teamOffset) == 0) return {};
  const auto team = textAt(field(teamOffset));
  if (!team) return failed(errSecCSSignatureFailed);
  teamIdentifier_ = *team;
  return {};
}

std::optional<std::string> CodeDirectory::textAt(std::uint32_t offset) const {
  if (offset < headerSize(version_) || offset >= blob_.size()) return std::nullopt;
  const auto begin = blob_.begin() + offset;
  const auto end = std::find(begin, blob_.end(), std::uint8_t{0});
  if (end == blob_.end()) return std::nullopt;
  return std::string(begin, end);
}

Result<void> CodeDirectory::checkSlots() const {
  if (hashSize_ != digestSize(hashType_)) return failed(errSecCSSignatureFailed);
  const std::uint64_t specialSize = std::uint64_t{hashSize_} * specialSlotCount_;
  const std::uint64_t codeSize = std::uint64_t{hashSize_} * codeSlotCount_;
  if (hashOffset_ < specialSize || hashOffset_ - specialSize < blobHeaderSize) return failed(errSecCSSignatureFailed);
  if (hashOffset_ + codeSize > blob_.size()) return failed(errSecCSSignatureFailed);
  // Written so that the limit can be anything: no sum that could wrap.
  const std::uint64_t pages = (codeLimit_ / pageSize_) + (codeLimit_ % pageSize_ != 0 ? 1 : 0);
  if (codeSlotCount_ != pages) return failed(errSecCSSignatureFailed);
  return {};
}

std::uint8_t CodeDirectory::platformNumber() const {
  return blob_[platformOffset];
}

ByteView CodeDirectory::codeSlot(std::uint32_t index) const {
  return ByteView(blob_).subspan(hashOffset_ + (hashSize_ * std::size_t{index}), hashSize_);
}

std::optional<ByteView> CodeDirectory::specialSlot(std::uint32_t number) const {
  if (number == 0 || number > specialSlotCount_) return std::nullopt;
  const auto hash = ByteView(blob_).subspan(hashOffset_ - (hashSize_ * std::size_t{number}), hashSize_);
  if (std::ranges::all_of(hash, [](std::uint8_t byte) { return byte == 0; })) return std::nullopt;
  return hash;
}

Bytes CodeDirectory::cdhash() const {
  constexpr std::size_t cdhashSize = 20;
  Bytes hash = uncutDigest(hashType_, blob_);
  hash.resize(cdhashSize);
  return hash;
}

}  // namespace platform::codesignature
