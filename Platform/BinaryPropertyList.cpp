#include "Platform/BinaryPropertyList.h"

#include "Platform/UTF8.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <utility>

namespace platform {
namespace {

constexpr std::size_t trailerBytes = 32;

class BinaryReader {
 public:
  explicit BinaryReader(std::string_view bytes)
      : bytes_(bytes), valueLimit_(std::min(PropertyList::maximumValues, bytes.size())) {}

  std::optional<PropertyList> read() {
    if (bytes_.size() < trailerBytes + 8 || !bytes_.starts_with("bplist0")) return std::nullopt;
    const std::size_t trailer = bytes_.size() - trailerBytes;
    offsetBytes_ = byteAt(trailer + 6);
    referenceBytes_ = byteAt(trailer + 7);
    objectCount_ = integerAt(trailer + 8, 8);
    offsetTable_ = integerAt(trailer + 24, 8);
    const bool sizesAreSane = offsetBytes_ >= 1 && offsetBytes_ <= 8 && referenceBytes_ >= 1 && referenceBytes_ <= 8;
    if (!sizesAreSane || offsetTable_ > trailer || objectCount_ > (trailer - offsetTable_) / offsetBytes_) {
      return std::nullopt;
    }
    return object(integerAt(trailer + 16, 8), 0);
  }

 private:
  /// Where an object's contents begin, and how many bytes or elements they are.
  struct Extent {
    std::size_t start;
    std::size_t count;
  };

  [[nodiscard]] std::uint8_t byteAt(std::size_t at) const { return static_cast<std::uint8_t>(bytes_[at]); }

  [[nodiscard]] std::uint64_t integerAt(std::size_t at, std::size_t length) const {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < length; ++i) value = (value << 8U) | byteAt(at + i);
    return value;
  }

  /// Whether `count` items of `size` bytes lie before the offset table.
  [[nodiscard]] bool fits(std::size_t start, std::size_t count, std::size_t size) const {
    return start <= offsetTable_ && count <= (offsetTable_ - start) / size;
  }

  std::optional<PropertyList> object(std::uint64_t index, std::size_t depth) {
    if (index >= objectCount_ || depth > PropertyList::maximumDepth) return std::nullopt;
    if (++values_ > valueLimit_) return std::nullopt;
    const std::uint64_t at = integerAt(offsetTable_ + (index * offsetBytes_), offsetBytes_);
    if (!fits(at, 1, 1)) return std::nullopt;
    const std::uint8_t marker = byteAt(at);
    const std::uint8_t low = marker & 0x0FU;
    switch (marker >> 4U) {
      case 0x0:
        return low == 8 || low == 9 ? std::optional<PropertyList>(low == 9) : std::nullopt;
      case 0x1:
        return integer(at + 1, low);
      case 0x2:
      case 0x3:
        return real(at + 1, marker);
      case 0x8:
        return uid(at + 1, low + 1U, depth);
      default:
        return sized(at, marker, depth);
    }
  }

  [[nodiscard]] std::optional<PropertyList> uid(std::size_t at, std::size_t length, std::size_t depth) const {
    // In XML it is nested once more.
    if (!fits(at, length, 1) || length > 8 || depth == PropertyList::maximumDepth) return std::nullopt;
    const std::uint64_t value = integerAt(at, length);
    if (!std::in_range<std::uint32_t>(value)) return std::nullopt;
    return PropertyList(PropertyList::UID{static_cast<std::uint32_t>(value)});
  }

  [[nodiscard]] std::optional<PropertyList> integer(std::size_t at, std::uint8_t power) const {
    const std::size_t length = std::size_t{1} << power;
    if (power > 4 || !fits(at, length, 1)) return std::nullopt;
    // Shorter ones are unsigned, those of 8 and 16 bytes signed.
    if (power < 4) return PropertyList(static_cast<std::int64_t>(integerAt(at, length)));
    const std::uint64_t upper = integerAt(at, 8);
    const std::uint64_t lower = integerAt(at + 8, 8);
    if (upper == 0) return PropertyList(lower);
    const auto negative = static_cast<std::int64_t>(lower);
    return upper == ~std::uint64_t{0} && negative < 0 ? std::optional<PropertyList>(negative) : std::nullopt;
  }

  [[nodiscard]] std::optional<PropertyList> real(std::size_t at, std::uint8_t marker) const {
    const bool isDouble = marker == 0x23 || marker == 0x33;
    if ((!isDouble && marker != 0x22) || !fits(at, isDouble ? 8 : 4, 1)) return std::nullopt;
    if (!isDouble) return PropertyList(double{std::bit_cast<float>(static_cast<std::uint32_t>(integerAt(at, 4)))});
    const auto value = std::bit_cast<double>(integerAt(at, 8));
    return marker == 0x33 ? PropertyList(PropertyList::Date{value}) : PropertyList(value);
  }

  /// The low half of the marker is the count, or 15 when an integer object with the count follows.
  [[nodiscard]] std::optional<Extent> extent(std::size_t at, std::uint8_t marker) const {
    const std::size_t low = marker & 0x0FU;
    if (low != 15) return Extent{.start = at + 1, .count = low};
    if (!fits(at + 1, 1, 1) || (byteAt(at + 1) >> 4U) != 1) return std::nullopt;
    const std::uint8_t power = byteAt(at + 1) & 0x0FU;
    const std::size_t length = std::size_t{1} << power;
    if (power > 3 || !fits(at + 2, length, 1)) return std::nullopt;
    return Extent{.start = at + 2 + length, .count = integerAt(at + 2, length)};
  }

  std::optional<PropertyList> sized(std::size_t at, std::uint8_t marker, std::size_t depth) {
    const auto place = extent(at, marker);
    if (!place) return std::nullopt;
    const auto [start, count] = *place;
    switch (marker >> 4U) {
      case 0x4:
      case 0x5:
        return fits(start, count, 1) ? contents(marker >> 4U, bytes_.substr(start, count)) : std::nullopt;
      case 0x6:
        return fits(start, count, 2) ? contents(marker >> 4U, bytes_.substr(start, 2 * count)) : std::nullopt;
      case 0xA:
        return array(start, count, depth);
      case 0xD:
        return dictionary(start, count, depth);
      default:
        return std::nullopt;
    }
  }

  /// Data and strings. An object can be referred to any number of times: what it unfolds to is bounded.
  std::optional<PropertyList> contents(unsigned kind, std::string_view bytes) {
    unfoldedBytes_ += bytes.size();
    if (unfoldedBytes_ > PropertyList::maximumBytes) return std::nullopt;
    if (kind == 0x4) return PropertyList(PropertyList::Data(bytes.begin(), bytes.end()));
    return PropertyList(kind == 0x5 ? std::string(bytes) : textFromUTF16(bytes));
  }

  [[nodiscard]] std::uint64_t reference(std::size_t start, std::size_t index) const {
    return integerAt(start + (index * referenceBytes_), referenceBytes_);
  }

  std::optional<PropertyList> array(std::size_t start, std::size_t count, std::size_t depth) {
    if (!fits(start, count, referenceBytes_)) return std::nullopt;
    PropertyList::Array elements;
    for (std::size_t i = 0; i < count; ++i) {
      auto element = object(reference(start, i), depth + 1);
      if (!element) return std::nullopt;
      elements.push_back(std::move(*element));
    }
    return elements;
  }

  /// First all keys, then all values.
  std::optional<PropertyList> dictionary(std::size_t start, std::size_t count, std::size_t depth) {
    if (count > PropertyList::maximumValues || !fits(start, 2 * count, referenceBytes_)) return std::nullopt;
    PropertyList::Dictionary entries;
    for (std::size_t i = 0; i < count; ++i) {
      const auto key = object(reference(start, i), depth + 1);
      auto value = object(reference(start, count + i), depth + 1);
      if (!key || key->string() == nullptr || !value) return std::nullopt;
      entries.insert_or_assign(*key->string(), std::move(*value));
    }
    return entries;
  }

  std::string_view bytes_;
  std::size_t valueLimit_;  // writers share no containers, so that each value takes a reference of its own
  std::size_t offsetBytes_ = 0;
  std::size_t referenceBytes_ = 0;
  std::uint64_t objectCount_ = 0;
  std::size_t offsetTable_ = 0;
  std::size_t values_ = 0;
  std::size_t unfoldedBytes_ = 0;
};

}  // namespace

std::optional<PropertyList> parseBinaryPropertyList(std::string_view bytes) {
  return BinaryReader(bytes).read();
}

}  // namespace platform
