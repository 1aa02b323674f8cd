#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/Failure.h"
#include "Posix/FileDescriptor.h"

#include <cstdint>
#include <span>
#include <string>
#include <utility>

namespace platform::codesignature {

/// A regular file, opened once and read by position, so that what is checked is what was opened. Reads may come from
/// several threads.
class InputFile {
 public:
  enum class Links { follow, refuse };

  /// The file at `path` below the folder open at `directory` (or AT_FDCWD). Anything but a regular file is
  /// errSecCSRegularFile; with Links::refuse so is a symbolic link.
  static Result<InputFile> open(int directory, const std::string& path, Links links);
  /// Takes over a descriptor that is already open for reading.
  static Result<InputFile> adopt(posix::FileDescriptor descriptor);

  [[nodiscard]] std::uint64_t size() const { return size_; }
  [[nodiscard]] int descriptor() const { return descriptor_.get(); }
  /// Whether the two are one file on disk.
  [[nodiscard]] bool isSameFile(const InputFile& other) const;

  /// Fills `buffer` from `offset` on; a range that is not wholly in the file is an I/O error.
  [[nodiscard]] Result<void> read(std::uint64_t offset, std::span<std::uint8_t> buffer) const;
  [[nodiscard]] Result<Bytes> bytes(std::uint64_t offset, std::uint64_t length) const;
  /// The whole file, which may have at most `maximum` bytes.
  [[nodiscard]] Result<Bytes> contents(std::uint64_t maximum) const;

 private:
  InputFile(posix::FileDescriptor descriptor, std::uint64_t size, std::uint64_t device, std::uint64_t node)
      : descriptor_(std::move(descriptor)), size_(size), device_(device), node_(node) {}

  posix::FileDescriptor descriptor_;
  std::uint64_t size_;
  std::uint64_t device_;
  std::uint64_t node_;
};

}  // namespace platform::codesignature
