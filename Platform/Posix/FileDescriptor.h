#pragma once

#include <utility>

#include <unistd.h>

namespace platform::posix {

/// Owns one descriptor; moved, never copied.
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

}  // namespace platform::posix
