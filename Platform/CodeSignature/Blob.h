#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/Failure.h"

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace platform::codesignature {

/// First words of the blobs a signature is made of.
namespace magic {
inline constexpr std::uint32_t requirementSet = 0xFADE0C01;
inline constexpr std::uint32_t codeDirectory = 0xFADE0C02;
inline constexpr std::uint32_t embeddedSignature = 0xFADE0CC0;
inline constexpr std::uint32_t wrapper = 0xFADE0B01;
inline constexpr std::uint32_t entitlements = 0xFADE7171;
}  // namespace magic

/// Slot numbers: types in a SuperBlob's index and, up to `lastSpecial`, special slots of a code directory.
namespace slot {
inline constexpr std::uint32_t codeDirectory = 0;
inline constexpr std::uint32_t infoPlist = 1;
inline constexpr std::uint32_t requirements = 2;
inline constexpr std::uint32_t resourceSeal = 3;
inline constexpr std::uint32_t topDirectory = 4;
inline constexpr std::uint32_t entitlements = 5;
inline constexpr std::uint32_t repSpecific = 6;
inline constexpr std::uint32_t lastSpecial = 11;
inline constexpr std::uint32_t firstAlternate = 0x1000;
inline constexpr std::uint32_t alternateCount = 5;
inline constexpr std::uint32_t cms = 0x10000;
}  // namespace slot

/// Bytes before a blob's payload: its magic and its length, which counts them too.
inline constexpr std::size_t blobHeaderSize = 8;
/// Larger signatures are not read: at 4 KiB pages and 32-byte hashes this covers 8 GiB of code.
inline constexpr std::uint64_t maximumSignatureSize = std::uint64_t{64} << 20U;

/// Whether a slot's content is raw bytes, kept in a wrapper inside a SuperBlob and hashed without it.
[[nodiscard]] bool isRawSlot(std::uint32_t type);

/// A SuperBlob: a table of blobs by slot. Holds views into the bytes it was read from.
class SuperBlob {
 public:
  struct Entry {
    std::uint32_t type;
    std::uint32_t offset;
    ByteView blob;
  };

  /// Reads the SuperBlob at the start of `bytes`; absent when its magic, its length or a blob does not fit, or when the
  /// blobs are together larger than the whole: nothing can be read from it many times over.
  static std::optional<SuperBlob> parse(ByteView bytes);

  [[nodiscard]] ByteView bytes() const { return bytes_; }
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }
  /// Whether the blobs follow each other in the order of the table without a gap and fill the whole.
  [[nodiscard]] bool isStrictlyPacked() const;

 private:
  ByteView bytes_;
  std::vector<Entry> entries_;
};

/// A signature taken apart: code directories, CMS and the components that special slots hash.
struct SignatureParts {
  std::vector<Bytes> codeDirectories;         ///< slot 0 first, then the alternates in order
  std::map<std::uint32_t, Bytes> components;  ///< by special slot: just the bytes its slot hashes
  Bytes cms;                                  ///< empty when there is none
};

/// errSecCSSignatureInvalid for a slot that occurs twice or a raw slot whose blob is no wrapper.
[[nodiscard]] Result<SignatureParts> partsOf(const SuperBlob& superBlob);

}  // namespace platform::codesignature
