#include "Platform/BinaryPropertyList.h"

#include <algorithm>
#include <bit>
#include <cstdint>

namespace platform {
namespace {

constexpr int maximumDepth = 256;
constexpr std::size_t maximumValues = 1'000'000;
constexpr std::size_t maximumContents = PropertyList::maximumBytes;
constexpr std::size_t trailerBytes = 32;

class BinaryReader {
 public:
  explicit BinaryReader(std::string_view bytes) : bytes_(bytes), valueLimit_(std::min(maximumValues, bytes.size())) {}

  std::optional<PropertyList> read() {
    if (bytes_.size() < trailerBytes + 8 || !bytes_.starts_with("bplist00")) return std::nullopt;
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

  /// Texts and data of all values together; one that many refer to counts each time.
  bool countContents(std::size_t bytes) {
    contents_ += bytes;
    return contents_ <= maximumContents;
  }

  std::optional<PropertyList> object(std::uint64_t index, int depth) {
    if (index >= objectCount_ || depth > maximumDepth || ++values_ > valueLimit_) return std::nullopt;
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
        if (!fits(at + 1, low + 1U, 1) || low > 7) return std::nullopt;
        return PropertyList(static_cast<std::int64_t>(integerAt(at + 1, low + 1U)));
      default:
        return sized(at, marker, depth);
    }
  }

  [[nodiscard]] std::optional<PropertyList> integer(std::size_t at, std::uint8_t power) const {
    if (power > 3 || !fits(at, std::size_t{1} << power, 1)) return std::nullopt;
    // Shorter ones are unsigned, those of 8 bytes signed.
    return PropertyList(static_cast<std::int64_t>(integerAt(at, std::size_t{1} << power)));
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

  std::optional<PropertyList> sized(std::size_t at, std::uint8_t marker, int depth) {
    const auto contents = extent(at, marker);
    if (!contents) return std::nullopt;
    const auto [start, count] = *contents;
    switch (marker >> 4U) {
      case 0x4:
        if (!fits(start, count, 1) || !countContents(count)) return std::nullopt;
        return PropertyList(PropertyList::Data(bytes_.begin() + static_cast<std::ptrdiff_t>(start),
                                               bytes_.begin() + static_cast<std::ptrdiff_t>(start + count)));
      case 0x5:
        if (!fits(start, count, 1) || !countContents(count)) return std::nullopt;
        return PropertyList(std::string(bytes_.substr(start, count)));
      case 0x6:
        if (!fits(start, count, 2) || !countContents(2 * count)) return std::nullopt;
        return PropertyList(utf8(start, count));
      case 0xA:
        return array(start, count, depth);
      case 0xD:
        return dictionary(start, count, depth);
      default:
        return std::nullopt;
    }
  }

  [[nodiscard]] std::uint64_t reference(std::size_t start, std::size_t index) const {
    return integerAt(start + (index * referenceBytes_), referenceBytes_);
  }

  std::optional<PropertyList> array(std::size_t start, std::size_t count, int depth) {
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
  std::optional<PropertyList> dictionary(std::size_t start, std::size_t count, int depth) {
    if (count > maximumValues || !fits(start, 2 * count, referenceBytes_)) return std::nullopt;
    PropertyList::Dictionary entries;
    for (std::size_t i = 0; i < count; ++i) {
      const auto key = object(reference(start, i), depth + 1);
      auto value = object(reference(start, count + i), depth + 1);
      if (!key || key->string() == nullptr || !value) return std::nullopt;
      entries.insert_or_assign(*key->string(), std::move(*value));
    }
    return entries;
  }

  /// UTF-16 to UTF-8; a surrogate without its partner becomes U+FFFD.
  [[nodiscard]] std::string utf8(std::size_t start, std::size_t units) const {
    std::string text;
    for (std::size_t i = 0; i < units; ++i) {
      auto scalar = static_cast<std::uint32_t>(integerAt(start + (2 * i), 2));
      if ((scalar & 0xFC00U) == 0xD800 && i + 1 < units) {
        const auto low = static_cast<std::uint32_t>(integerAt(start + (2 * (i + 1)), 2));
        if ((low & 0xFC00U) == 0xDC00) {
          scalar = 0x10000 + ((scalar & 0x3FFU) << 10U) + (low & 0x3FFU);
          ++i;
        }
      }
      appendScalar(text, (scalar & 0xFFFFF800U) == 0xD800 ? 0xFFFD : scalar);
    }
    return text;
  }

  static void appendScalar(std::string& text, std::uint32_t scalar) {
    const auto continuation = [&](unsigned shift) { return static_cast<char>(0x80U | ((scalar >> shift) & 0x3FU)); };
    if (scalar < 0x80) {
      text += static_cast<char>(scalar);
    } else if (scalar < 0x800) {
      text += {static_cast<char>(0xC0U | (scalar >> 6U)), continuation(0)};
    } else if (scalar < 0x10000) {
      text += {static_cast<char>(0xE0U | (scalar >> 12U)), continuation(6), continuation(0)};
    } else {
      text += {static_cast<char>(0xF0U | (scalar >> 18U)), continuation(12), continuation(6), continuation(0)};
    }
  }

  std::string_view bytes_;
  std::size_t valueLimit_;  // writers share no containers, so that each value takes a reference of its own
  std::size_t offsetBytes_ = 0;
  std::size_t referenceBytes_ = 0;
  std::uint64_t objectCount_ = 0;
  std::size_t offsetTable_ = 0;
  std::size_t values_ = 0;
  std::size_t contents_ = 0;
};

}  // namespace

std::optional<PropertyList> parseBinaryPropertyList(std::string_view bytes) {
  return BinaryReader(bytes).read();
}

}  // namespace platform
