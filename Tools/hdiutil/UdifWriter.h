#pragma once

#include "hdiutil/BigEndianBytes.h"

#include <cstdint>
#include <span>
#include <string>

namespace tools {

/// Writes a disk image of the Universal Disk Image Format with zlib chunks (UDZO): the chunks, a property list with the
/// table of the one volume, and the 512-byte trailer that a reader starts from. Memory use is a few chunks, however
/// large the volume. After an error every further call is one.
class UdifWriter {
 public:
  static constexpr std::size_t sectorBytes = 512;
  static constexpr std::size_t chunkSectors = 2048;
  static constexpr std::size_t chunkBytes = chunkSectors * sectorBytes;

  /// Writes to the descriptor, from where it stands, which must be the beginning of its file.
  explicit UdifWriter(int descriptor) : descriptor_(descriptor) {}

  /// The next bytes of the volume: whole sectors, chunkBytes of them at most. Returns 0 or the errno.
  int append(std::span<const char> bytes);

  /// Completes the image. Returns 0 or the errno.
  int finish();

 private:
  int write(std::span<const char> bytes);
  [[nodiscard]] std::string blockTable() const;
  [[nodiscard]] std::string propertyList() const;
  [[nodiscard]] std::string trailer(std::uint64_t dataForkLength, std::uint64_t propertyListLength) const;

  int descriptor_;
  int failure_ = 0;
  BigEndianBytes chunks_;  // their entries of the block table
  std::uint32_t chunkCount_ = 0;
  std::uint64_t sectors_ = 0;
  std::uint64_t written_ = 0;
  std::uint32_t volumeChecksum_ = 0;
  std::uint32_t dataForkChecksum_ = 0;
};

}  // namespace tools
