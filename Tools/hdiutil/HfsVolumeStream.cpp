#include "hdiutil/HfsVolumeStream.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <vector>

namespace tools {
namespace {

constexpr std::size_t systemAreaBytes = 32768;

struct Partition {
  std::uint64_t offset;
  std::uint64_t size;
};

std::uint64_t bigEndian(std::string_view bytes) {
  std::uint64_t value = 0;
  for (const char byte : bytes) value = value << 8U | static_cast<unsigned char>(byte);
  return value;
}

/// Finds the HFS+ partition in the Apple partition map at the start of a hybrid image: a driver descriptor with the
/// block size, then a block per partition with its start, its length (in blocks) and its type.
std::optional<Partition> hfsPartition(std::string_view systemArea) {
  if (systemArea.size() < systemAreaBytes || !systemArea.starts_with("ER")) return std::nullopt;
  const std::uint64_t block = bigEndian(systemArea.substr(2, 2));
  if (block < 512) return std::nullopt;
  for (std::uint64_t start = block; start + block <= systemArea.size(); start += block) {
    const std::string_view entry = systemArea.substr(start, 512);
    if (!entry.starts_with("PM")) break;
    if (!entry.substr(48).starts_with(std::string_view("Apple_HFS\0", 10))) continue;
    return Partition{.offset = bigEndian(entry.substr(8, 4)) * block, .size = bigEndian(entry.substr(12, 4)) * block};
  }
  return std::nullopt;
}

bool skip(ChildProgram& program, std::uint64_t count) {
  std::vector<char> buffer(std::size_t{1} << 20U);
  while (count > 0) {
    const std::span<char> part = std::span(buffer).first(std::min<std::uint64_t>(count, buffer.size()));
    if (program.read(part) != part.size()) return false;
    count -= part.size();
  }
  return true;
}

}  // namespace

std::expected<HfsVolumeStream, int> HfsVolumeStream::open(const std::string& folder, const std::string& volumeName) {
  // Standard output is taken by the program's own messages.
  auto program = ChildProgram::start({.words = {"xorriso", "-no_rc", "-outdev", "stdio:/dev/fd/3", "-abort_on", "SORRY",
                                                "-hfsplus", "on", "-volid", volumeName, "-map", folder, "/", "-commit"},
                                      .outputAs = 3});
  if (!program) return std::unexpected(program.error());
  std::string systemArea(systemAreaBytes, '\0');
  systemArea.resize(program->read(systemArea));
  const auto partition = hfsPartition(systemArea);
  if (!partition || partition->offset < systemAreaBytes || !skip(*program, partition->offset - systemAreaBytes)) {
    return std::unexpected(program->finish() == notFoundStatus ? ENOSYS : EIO);
  }
  return HfsVolumeStream(std::move(*program), partition->size);
}

std::expected<std::size_t, int> HfsVolumeStream::read(std::span<char> buffer) {
  const std::span<char> wanted = buffer.first(std::min<std::uint64_t>(buffer.size(), remaining_));
  if (program_.read(wanted) != wanted.size()) return std::unexpected(EIO);
  remaining_ -= wanted.size();
  return wanted.size();
}

int HfsVolumeStream::finish() {
  return program_.finish() == 0 ? 0 : EIO;
}

}  // namespace tools
