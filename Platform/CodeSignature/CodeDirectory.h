#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/Digest.h"
#include "CodeSignature/Failure.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform::codesignature {

/// A code directory: the hashes of the code's pages (code slots) and of what belongs to it (special slots), with the
/// names it was signed under. Checked as a whole when read, so that every access is inside. Immutable; any thread.
class CodeDirectory {
 public:
  static constexpr std::uint32_t flagAdHoc = 0x2;
  static constexpr std::uint32_t flagConsiderExpiration = 0x400;

  /// errSecCSSignatureUnsupported for a version or hash type nobody signs with, errSecCSSignatureFailed for offsets,
  /// counts or sizes that do not fit together.
  static Result<CodeDirectory> parse(Bytes blob);

  [[nodiscard]] ByteView bytes() const { return blob_; }
  [[nodiscard]] std::uint32_t flags() const { return flags_; }
  [[nodiscard]] bool isAdHoc() const { return (flags_ & flagAdHoc) != 0; }
  /// The operating-system release the code is part of; 0 for everybody else's.
  [[nodiscard]] std::uint8_t platformNumber() const;
  [[nodiscard]] HashType hashType() const { return hashType_; }
  [[nodiscard]] std::string_view identifier() const { return identifier_; }
  /// Empty when the signer has no team.
  [[nodiscard]] std::string_view teamIdentifier() const { return teamIdentifier_; }

  /// Bytes of code the code slots cover.
  [[nodiscard]] std::uint64_t codeLimit() const { return codeLimit_; }
  /// Bytes of code per code slot; the last slot may cover fewer. All of it when there is one slot.
  [[nodiscard]] std::uint64_t pageSize() const { return pageSize_; }
  [[nodiscard]] std::uint32_t codeSlotCount() const { return codeSlotCount_; }
  [[nodiscard]] ByteView codeSlot(std::uint32_t index) const;
  /// Absent when the slot is not in the directory or all zero.
  [[nodiscard]] std::optional<ByteView> specialSlot(std::uint32_t number) const;

  /// The directory's own hash, by which requirements and seals name it: 20 bytes.
  [[nodiscard]] Bytes cdhash() const;

 private:
  explicit CodeDirectory(Bytes blob) : blob_(std::move(blob)) {}
  [[nodiscard]] Result<void> readHeader();
  [[nodiscard]] Result<void> readCodeLimit();
  [[nodiscard]] Result<void> readNames();
  [[nodiscard]] Result<void> checkSlots() const;
  [[nodiscard]] std::uint32_t field(std::uint64_t offset) const;
  [[nodiscard]] std::optional<std::string> textAt(std::uint32_t offset) const;

  Bytes blob_;
  std::uint32_t version_ = 0;
  std::uint32_t flags_ = 0;
  HashType hashType_ = HashType::sha256;
  std::size_t hashSize_ = 0;
  std::uint32_t hashOffset_ = 0;
  std::uint32_t specialSlotCount_ = 0;
  std::uint32_t codeSlotCount_ = 0;
  std::uint64_t codeLimit_ = 0;
  std::uint64_t pageSize_ = 0;
  std::string identifier_;
  std::string teamIdentifier_;
};

}  // namespace platform::codesignature
