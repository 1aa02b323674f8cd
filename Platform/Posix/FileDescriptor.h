#pragma once

#include <expected>
#include <string>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace platform::posix {

/// Owns one descriptor.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~FileDescriptor() { reset(); }

  void reset() {
    if (descriptor_ >= 0) close(std::exchange(descriptor_, -1));
  }
  /// Hands the descriptor over to the caller.
  [[nodiscard]] int release() { return std::exchange(descriptor_, -1); }
  [[nodiscard]] int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }

 private:
  int descriptor_ = -1;
};

/// The bytes of a regular file of the machine, or the errno that prevented it: EISDIR for a directory, EACCES for a
/// fifo or device (which is never waited for), EFBIG beyond `maximumBytes`.
std::expected<std::string, int> readRegularFile(const std::string& machinePath, std::size_t maximumBytes);

/// Replaces the file in one step, so that a reader sees the old bytes or the new ones; the new file has mode 0600.
/// Returns 0 or the errno; on failure the old file stands and nothing is left beside it.
int replaceFile(const std::string& machinePath, std::string_view bytes);

/// Creates the folder and the folders above it that are missing. Returns 0 or the errno.
int makeFolders(const std::string& machinePath, unsigned mode);

}  // namespace platform::posix
