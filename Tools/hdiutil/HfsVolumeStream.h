#pragma once

#include "Support/ChildProgram.h"

#include <cstdint>
#include <expected>
#include <span>
#include <string>

namespace tools {

/// An HFS+ volume with the contents of a folder, as a stream of bytes. xorriso makes it, as the HFS+ half of a hybrid
/// image whose ISO 9660 half is skipped here; nothing is laid down on disk.
class HfsVolumeStream {
 public:
  /// The longest volume name, in bytes of UTF-8, that can be given to the volume.
  static constexpr std::size_t longestName = 32;

  /// `folder` is an absolute path of the machine. The errno is EIO for a folder that cannot be read in full.
  static std::expected<HfsVolumeStream, int> open(const std::string& folder, const std::string& volumeName);

  /// Fills `buffer`; the count is short only at the volume's end, and 0 behind it. EIO when the volume breaks off.
  std::expected<std::size_t, int> read(std::span<char> buffer);

  /// To be called at the end: 0, or the errno when the volume that was read is not what the folder holds.
  int finish();

 private:
  HfsVolumeStream(ChildProgram program, std::uint64_t size) : program_(std::move(program)), remaining_(size) {}

  ChildProgram program_;
  std::uint64_t remaining_;
};

}  // namespace tools
