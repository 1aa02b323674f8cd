#include "CodeSignature/MachO.h"

#include <algorithm>
#include <array>
#include <string_view>

#include <fmt/format.h>

namespace platform::codesignature {
namespace {

constexpr std::uint32_t magic32 = 0xFEEDFACE;
constexpr std::uint32_t magic64 = 0xFEEDFACF;
constexpr std::uint32_t fatMagic = 0xCAFEBABE;
constexpr std::uint32_t arm64Type = 0x0100000C;
constexpr std::uint32_t segmentCommand = 0x1;
constexpr std::uint32_t segment64Command = 0x19;
constexpr std::uint32_t codeSignatureCommand = 0x1D;
constexpr std::uint64_t maximumCommands = std::uint64_t{16} << 20U;
constexpr std::uint32_t maximumSlices = 100;
constexpr std::uint32_t maximumAlignment = 20;
constexpr std::uint64_t fatHeaderSize = 8;
constexpr std::uint64_t fatEntrySize = 20;

/// Where the fields of segments and sections lie, which differ with the width of addresses.
struct SegmentLayout {
  std::uint64_t fileOffset;
  std::uint64_t fileSize;
  std::uint64_t sectionCount;
  std::uint64_t sections;
  std::uint64_t sectionStride;
  std::uint64_t sectionSize;
  std::uint64_t sectionOffset;
};
constexpr SegmentLayout layout32 = {32, 36, 48, 56, 68, 36, 40};
constexpr SegmentLayout layout64 = {40, 48, 64, 72, 80, 40, 48};

std::string_view nameAt(ByteView bytes, std::uint64_t offset) {
  constexpr std::uint64_t nameSize = 16;
  const auto field = subrange(bytes, offset, nameSize);
  if (!field) return {};
  const auto text = textOf(*field);
  return text.substr(0, text.find('\0'));
}

/// Reads the header and the load commands of one slice.
class SliceReader {
 public:
  SliceReader(const InputFile& file, const MachOSlice& slice) : file_(file), slice_(slice) {}

  Result<MachOSlice> read() {
    if (auto done = readHeader(); !done) return std::unexpected(done.error());
    std::uint64_t position = 0;
    for (std::uint32_t i = 0; i < slice_.commandCount; ++i) {
      const auto size = word(position + 4);
      const auto command = size ? subrange(commands_, position, *size) : std::nullopt;
      constexpr std::uint32_t minimumSize = 8;
      if (!command || *size < minimumSize || !readCommand(*command, position)) return failed(errSecCSBadObjectFormat);
      position += *size;
    }
    return slice_;
  }

 private:
  Result<void> readHeader() {
    constexpr std::uint64_t headerSize32 = 28;
    constexpr std::uint64_t headerSize64 = 32;
    const auto head = file_.bytes(slice_.offset, std::min(slice_.size, headerSize64));
    if (!head) return std::unexpected(head.error());
    const auto magic = integerAt<std::uint32_t>(*head, 0, ByteOrder::littleEndian).value_or(0);
    const auto swapped = integerAt<std::uint32_t>(*head, 0).value_or(0);
    slice_.order = magic == magic32 || magic == magic64 ? ByteOrder::littleEndian : ByteOrder::bigEndian;
    const std::uint32_t native = slice_.order == ByteOrder::littleEndian ? magic : swapped;
    if (native != magic32 && native != magic64) return failed(errSecCSBadObjectFormat);
    slice_.is64Bit = native == magic64;
    headerSize_ = slice_.is64Bit ? headerSize64 : headerSize32;
    if (head->size() < headerSize_) return failed(errSecCSBadObjectFormat);
    slice_.cpuType = headerWord(*head, 4);
    slice_.cpuSubtype = headerWord(*head, 8);
    if (!isLoadable(headerWord(*head, 12))) return failed(errSecCSBadObjectFormat);
    slice_.commandCount = headerWord(*head, 16);
    return readCommands(headerWord(*head, 20));
  }

  [[nodiscard]] std::uint32_t headerWord(ByteView head, std::uint64_t offset) const {
    return integerAt<std::uint32_t>(head, offset, slice_.order).value_or(0);
  }

  Result<void> readCommands(std::uint64_t size) {
    if (size > maximumCommands || size > slice_.size - headerSize_) return failed(errSecCSBadObjectFormat);
    auto commands = file_.bytes(slice_.offset + headerSize_, size);
    if (!commands) return std::unexpected(commands.error());
    commands_ = std::move(*commands);
    slice_.commandsEnd = headerSize_ + size;
    return {};
  }

  /// Executables, preloaded ones, libraries, the loader, plug-ins and kernel extensions.
  static bool isLoadable(std::uint32_t fileType) {
    constexpr std::array<std::uint32_t, 6> types = {2, 5, 6, 7, 8, 11};
    return std::ranges::find(types, fileType) != types.end();
  }

  [[nodiscard]] std::optional<std::uint32_t> word(std::uint64_t offset) const {
    return integerAt<std::uint32_t>(commands_, offset, slice_.order);
  }
  /// A field as wide as an address.
  [[nodiscard]] std::optional<std::uint64_t> wide(ByteView bytes, std::uint64_t offset) const {
    if (slice_.is64Bit) return integerAt<std::uint64_t>(bytes, offset, slice_.order);
    return integerAt<std::uint32_t>(bytes, offset, slice_.order);
  }
  [[nodiscard]] std::optional<ByteRange> inside(std::uint64_t offset, std::uint64_t length) const {
    if (offset > slice_.size || length > slice_.size - offset) return std::nullopt;
    return ByteRange{offset, length};
  }

  bool readCommand(ByteView command, std::uint64_t position) {
    const auto kind = integerAt<std::uint32_t>(command, 0, slice_.order);
    if (kind == codeSignatureCommand) return readSignature(command, position);
    if (kind == segmentCommand || kind == segment64Command) return readSegment(command, position);
    return true;
  }

  /// The first such command counts.
  bool readSignature(ByteView command, std::uint64_t position) {
    const auto offset = integerAt<std::uint32_t>(command, 8, slice_.order);
    const auto size = integerAt<std::uint32_t>(command, 12, slice_.order);
    if (!offset || !size) return false;
    if (slice_.signature) return true;
    slice_.signature = inside(*offset, *size);
    slice_.signatureCommand = headerSize_ + position;
    return slice_.signature.has_value();
  }

  bool readSegment(ByteView command, std::uint64_t position) {
    const SegmentLayout& layout = slice_.is64Bit ? layout64 : layout32;
    const auto offset = wide(command, layout.fileOffset);
    const auto size = wide(command, layout.fileSize);
    const auto count = integerAt<std::uint32_t>(command, layout.sectionCount, slice_.order);
    if (!offset || !size || !count) return false;
    constexpr std::uint64_t nameOffset = 8;
    if (nameAt(command, nameOffset) == "__LINKEDIT" && !slice_.linkEdit) {
      slice_.linkEdit = inside(*offset, *size);
      slice_.linkEditCommand = headerSize_ + position;
      if (!slice_.linkEdit) return false;
    }
    for (std::uint64_t i = 0; i < *count; ++i) {
      const auto section = subrange(command, layout.sections + (i * layout.sectionStride), layout.sectionStride);
      if (!section || !readSection(*section, layout)) return false;
    }
    return true;
  }

  bool readSection(ByteView section, const SegmentLayout& layout) {
    const auto size = wide(section, layout.sectionSize);
    const auto offset = integerAt<std::uint32_t>(section, layout.sectionOffset, slice_.order);
    if (!size || !offset) return false;
    if (*offset != 0) slice_.firstSection = std::min<std::uint64_t>(slice_.firstSection, *offset);
    constexpr std::uint64_t segmentNameOffset = 16;
    if (nameAt(section, 0) == "__info_plist" && nameAt(section, segmentNameOffset) == "__TEXT" && !slice_.infoPlist) {
      slice_.infoPlist = inside(*offset, *size);
      return slice_.infoPlist.has_value();
    }
    return true;
  }

  const InputFile& file_;
  MachOSlice slice_;
  std::uint64_t headerSize_ = 0;
  Bytes commands_;
};

struct FatEntry {
  MachOSlice slice;
  std::uint32_t alignment;
};

std::optional<FatEntry> fatEntry(const InputFile& file, std::uint32_t index) {
  const auto bytes = file.bytes(fatHeaderSize + (fatEntrySize * index), fatEntrySize);
  if (!bytes) return std::nullopt;
  FatEntry entry = {};
  entry.slice.cpuType = integerAt<std::uint32_t>(*bytes, 0).value_or(0);
  entry.slice.offset = integerAt<std::uint32_t>(*bytes, 8).value_or(0);
  entry.slice.size = integerAt<std::uint32_t>(*bytes, 12).value_or(0);
  entry.alignment = integerAt<std::uint32_t>(*bytes, 16).value_or(0);
  if (entry.slice.offset > file.size() || entry.slice.size > file.size() - entry.slice.offset) return std::nullopt;
  if (entry.alignment > maximumAlignment) return std::nullopt;
  return entry;
}

/// The entries of the table, and the one for arm64 that may hide behind it from systems that would stumble over it.
Result<std::vector<FatEntry>> fatEntries(const InputFile& file) {
  const auto head = file.bytes(0, fatHeaderSize);
  if (!head) return std::unexpected(head.error());
  const auto count = integerAt<std::uint32_t>(*head, 4).value_or(0);
  if (count == 0 || count > maximumSlices) return failed(errSecCSBadObjectFormat);
  std::vector<FatEntry> entries;
  std::uint64_t firstOffset = file.size();
  for (std::uint32_t i = 0; i < count; ++i) {
    auto entry = fatEntry(file, i);
    if (!entry) return failed(errSecCSBadObjectFormat);
    firstOffset = std::min(firstOffset, entry->slice.offset);
    entries.push_back(*entry);
  }
  if (firstOffset >= fatHeaderSize + (fatEntrySize * (std::uint64_t{count} + 1))) {
    auto hidden = fatEntry(file, count);
    if (hidden && hidden->slice.cpuType == arm64Type) entries.push_back(*hidden);
  }
  std::ranges::sort(entries, {}, [](const FatEntry& entry) { return entry.slice.offset; });
  return entries;
}

bool isZero(const InputFile& file, std::uint64_t offset, std::uint64_t length) {
  const auto bytes = file.bytes(offset, length);
  return bytes && std::ranges::all_of(*bytes, [](std::uint8_t byte) { return byte == 0; });
}

/// Between slices there may be just the zeros that alignment needs.
Result<void> checkGaps(const InputFile& file, const std::vector<FatEntry>& entries) {
  std::uint64_t end = fatHeaderSize + (fatEntrySize * entries.size());
  for (const auto& entry : entries) {
    if (entry.slice.offset < end) return failed(errSecCSBadMainExecutable);
    const std::uint64_t gap = entry.slice.offset - end;
    if (gap >= std::uint64_t{1} << entry.alignment) return failed(errSecCSBadMainExecutable);
    if (!isZero(file, end, gap)) return failed(errSecCSBadMainExecutable);
    end = entry.slice.offset + entry.slice.size;
  }
  if (end != file.size()) return failed(errSecCSBadMainExecutable);
  return {};
}

}  // namespace

std::string MachOSlice::architecture() const {
  struct Name {
    std::uint32_t cpuType;
    std::string_view text;
  };
  static constexpr std::array<Name, 5> names = {
      {{7, "i386"}, {0x01000007, "x86_64"}, {12, "arm"}, {arm64Type, "arm64"}, {18, "ppc"}}};
  const auto* name = std::ranges::find(names, cpuType, &Name::cpuType);
  return name == names.end() ? fmt::format("cpu {}", cpuType) : std::string(name->text);
}

bool beginsMachO(ByteView head) {
  const auto bigEndian = integerAt<std::uint32_t>(head, 0);
  const auto littleEndian = integerAt<std::uint32_t>(head, 0, ByteOrder::littleEndian);
  return bigEndian == fatMagic || bigEndian == magic32 || bigEndian == magic64 || littleEndian == magic32 ||
         littleEndian == magic64;
}

Result<std::vector<MachOSlice>> machOSlices(const InputFile& file) {
  const auto head = file.bytes(0, std::min<std::uint64_t>(file.size(), 4));
  if (!head) return std::unexpected(head.error());
  std::vector<MachOSlice> slices;
  if (integerAt<std::uint32_t>(*head, 0) != fatMagic) {
    slices.emplace_back().size = file.size();
  } else {
    auto entries = fatEntries(file);
    if (!entries) return std::unexpected(entries.error());
    if (auto done = checkGaps(file, *entries); !done) return std::unexpected(done.error());
    for (const auto& entry : *entries) slices.push_back(entry.slice);
  }
  for (auto& slice : slices) {
    auto read = SliceReader(file, slice).read();
    if (!read) return std::unexpected(read.error());
    slice = *read;
    const bool endsWithLinkEdit = !slice.linkEdit || slice.linkEdit->offset + slice.linkEdit->length == slice.size;
    if (!endsWithLinkEdit) return failed(errSecCSBadMainExecutable);
  }
  return slices;
}

}  // namespace platform::codesignature
