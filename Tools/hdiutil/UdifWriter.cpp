#include "hdiutil/UdifWriter.h"

#include "Platform/PropertyList.h"

#include <cerrno>
#include <vector>

#include <unistd.h>
#include <zlib.h>

namespace tools {
namespace {

using platform::PropertyList;

enum ChunkType : std::uint32_t { rawChunk = 1, zlibChunk = 0x80000005, terminator = 0xFFFFFFFF };

constexpr std::uint32_t crc32Checksum = 2;
constexpr std::uint32_t trailerBytes = 512;
constexpr int fastCompression = 1;  // the platform's own default for this format

std::uint32_t checksum(std::uint32_t before, std::span<const char> bytes) {
  return static_cast<std::uint32_t>(crc32_z(before, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

void appendChecksum(BigEndianBytes& bytes, std::uint32_t value) {
  bytes.u32(crc32Checksum).u32(32).u32(value).zeros(124);
}

/// A zlib stream of its own; empty when that is no shorter than the bytes as they are.
std::vector<char> compressed(std::span<const char> bytes) {
  uLongf size = compressBound(bytes.size());
  std::vector<char> result(size);
  const int status = compress2(reinterpret_cast<Bytef*>(result.data()), &size,
                               reinterpret_cast<const Bytef*>(bytes.data()), bytes.size(), fastCompression);
  result.resize(status == Z_OK && size < bytes.size() ? size : 0);
  return result;
}

}  // namespace

int UdifWriter::append(std::span<const char> bytes) {
  if (bytes.empty()) return failure_;
  const std::vector<char> stream = compressed(bytes);
  const std::span<const char> stored = stream.empty() ? bytes : std::span<const char>(stream);
  const std::uint64_t sectors = bytes.size() / sectorBytes;
  chunks_.u32(stream.empty() ? rawChunk : zlibChunk).u32(0).u64(sectors_).u64(sectors).u64(written_).u64(stored.size());
  ++chunkCount_;
  sectors_ += sectors;
  volumeChecksum_ = checksum(volumeChecksum_, bytes);
  dataForkChecksum_ = checksum(dataForkChecksum_, stored);
  return write(stored);
}

int UdifWriter::finish() {
  const std::uint64_t dataForkLength = written_;
  chunks_.u32(terminator).u32(0).u64(sectors_).u64(0).u64(dataForkLength).u64(0);
  ++chunkCount_;
  const std::string list = propertyList();
  write(list);
  return write(trailer(dataForkLength, list.size()));
}

int UdifWriter::write(std::span<const char> bytes) {
  while (failure_ == 0 && !bytes.empty()) {
    const ssize_t count = ::write(descriptor_, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      failure_ = errno;
    } else {
      written_ += static_cast<std::uint64_t>(count);
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
  }
  return failure_;
}

std::string UdifWriter::blockTable() const {
  constexpr std::uint32_t bufferSectors = chunkSectors + 8;
  BigEndianBytes table;
  table.text("mish").u32(1).u64(0).u64(sectors_).u64(0).u32(bufferSectors).u32(0).zeros(24);
  appendChecksum(table, volumeChecksum_);
  table.u32(chunkCount_).text(chunks_.bytes());
  return table.bytes();
}

std::string UdifWriter::propertyList() const {
  const std::string table = blockTable();
  const PropertyList::Dictionary volume = {{"Attributes", "0x0050"},
                                           {"CFName", "whole disk (Apple_HFS : 0)"},
                                           {"Data", PropertyList::Data(table.begin(), table.end())},
                                           {"ID", "0"},
                                           {"Name", "whole disk (Apple_HFS : 0)"}};
  const PropertyList::Dictionary resources = {{"blkx", PropertyList::Array{volume}}, {"plst", PropertyList::Array{}}};
  return PropertyList(PropertyList::Dictionary{{"resource-fork", resources}}).serialized(PropertyList::Format::xml);
}

std::string UdifWriter::trailer(std::uint64_t dataForkLength, std::uint64_t propertyListLength) const {
  constexpr std::uint32_t version = 4;
  constexpr std::uint32_t flattened = 1;
  constexpr std::uint32_t deviceImage = 1;
  BigEndianBytes koly;
  koly.text("koly").u32(version).u32(trailerBytes).u32(flattened);
  koly.u64(0).u64(0).u64(dataForkLength).u64(0).u64(0);  // running offset; data fork; resource fork
  koly.u32(1).u32(1).zeros(16);                          // the first of one segment, which needs no identifier
  appendChecksum(koly, dataForkChecksum_);
  koly.u64(dataForkLength).u64(propertyListLength).zeros(64);
  koly.zeros(16).zeros(40);  // no code signature; reserved
  const std::string volumeChecksums = BigEndianBytes().u32(volumeChecksum_).bytes();
  appendChecksum(koly, checksum(0, volumeChecksums));
  koly.u32(deviceImage).u64(sectors_).zeros(12);
  return koly.bytes();
}

}  // namespace tools
