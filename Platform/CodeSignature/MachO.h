#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/Failure.h"
#include "CodeSignature/InputFile.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform::codesignature {

struct ByteRange {
  std::uint64_t offset;
  std::uint64_t length;
};

/// One architecture of a Mach-O file. Ranges count from the slice's start and lie inside it.
struct MachOSlice {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  std::uint32_t cpuType = 0;
  std::uint32_t cpuSubtype = 0;
  bool is64Bit = false;
  ByteOrder order = ByteOrder::littleEndian;
  std::uint32_t commandCount = 0;
  std::uint64_t commandsEnd = 0;  ///< where the load commands end

  std::optional<ByteRange> signature;       ///< what LC_CODE_SIGNATURE names
  std::uint64_t signatureCommand = 0;       ///< that command's own place
  std::optional<ByteRange> infoPlist;       ///< section __TEXT,__info_plist
  std::optional<ByteRange> linkEdit;        ///< segment __LINKEDIT
  std::uint64_t linkEditCommand = 0;        ///< that command's own place
  std::uint64_t firstSection = UINT64_MAX;  ///< the lowest offset of a section's bytes

  [[nodiscard]] std::string architecture() const;
};

/// Whether a file that begins like this is a Mach-O file, thin or fat. The 64-bit fat form is not one: the platform
/// does not know it either.
[[nodiscard]] bool beginsMachO(ByteView head);

/// The slices of a Mach-O file in the order of their offsets. errSecCSBadObjectFormat for headers that cannot be,
/// errSecCSBadMainExecutable for slices that overlap or leave room between them, before the end or after it.
[[nodiscard]] Result<std::vector<MachOSlice>> machOSlices(const InputFile& file);

}  // namespace platform::codesignature
