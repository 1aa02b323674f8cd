#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/Failure.h"
#include "CodeSignature/InputFile.h"

#include <cstdint>
#include <optional>

namespace platform::codesignature {

/// The trailer of a UDIF disk image: its last 512 bytes, and where they put the image's signature.
class DiskImageTrailer {
 public:
  static constexpr std::uint64_t size = 512;

  /// Absent when the file does not end in a trailer of the version there is.
  static Result<std::optional<DiskImageTrailer>> read(const InputFile& file);

  [[nodiscard]] std::uint64_t signatureOffset() const;
  [[nodiscard]] std::uint64_t signatureLength() const;
  void setSignature(std::uint64_t offset, std::uint64_t length);
  [[nodiscard]] ByteView bytes() const { return bytes_; }

  /// What the signature seals of the trailer: all but the signature's length, which is not known before it is made.
  [[nodiscard]] Bytes sealedBytes() const;

 private:
  explicit DiskImageTrailer(Bytes bytes) : bytes_(std::move(bytes)) {}
  Bytes bytes_;
};

/// The bytes of the image's SuperBlob, which fill the room between the code and the trailer; empty when the image has
/// no readable signature. errSecCSBadDiskImageFormat when it has one that is not framed exactly.
[[nodiscard]] Result<Bytes> diskImageSignature(const InputFile& file, const DiskImageTrailer& trailer);

}  // namespace platform::codesignature
