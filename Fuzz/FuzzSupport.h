#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

/// What several targets need.
namespace fuzz {

/// A promise of the code under test. One that is not kept ends the run, and libFuzzer keeps the input.
inline void require(bool isKept) {
  if (!isKept) __builtin_trap();
}

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Two digits a byte.
inline std::string hex(std::span<const std::uint8_t> bytes) {
  static constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (const auto byte : bytes) text += {digits[byte >> 4U], digits[byte & 15U]};
  return text;
}

/// A file in memory, reachable by a path as long as it lives.
class MemoryFile {
 public:
  MemoryFile() : descriptor_(::memfd_create("fuzz", MFD_CLOEXEC)) {}
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() { ::close(descriptor_); }

  void write(std::string_view bytes) const {
    require(::ftruncate(descriptor_, 0) == 0);
    require(::pwrite(descriptor_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
  }
  [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

/// A folder of this process's own, in memory where the machine has room for files there.
class Folder {
 public:
  Folder() {
    std::string pattern = std::filesystem::is_directory("/dev/shm") ? "/dev/shm/fuzz.XXXXXX" : "/tmp/fuzz.XXXXXX";
    require(::mkdtemp(pattern.data()) != nullptr);
    path_ = pattern;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// Replaces the contents of a file.
inline void write(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

}  // namespace fuzz
