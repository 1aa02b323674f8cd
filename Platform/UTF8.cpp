#include "Platform/UTF8.h"

#include <array>

namespace platform {
namespace {

bool isHighSurrogate(std::uint32_t value) {
  return (value & 0xFFFFFC00U) == 0xD800;
}

bool isLowSurrogate(std::uint32_t value) {
  return (value & 0xFFFFFC00U) == 0xDC00;
}

std::uint32_t unitAt(std::string_view units, std::size_t at) {
  return (std::uint32_t{static_cast<std::uint8_t>(units[at])} << 8U) | static_cast<std::uint8_t>(units[at + 1]);
}

void appendUnit(std::string& units, std::uint32_t unit) {
  units += {static_cast<char>(unit >> 8U), static_cast<char>(unit & 0xFFU)};
}

}  // namespace

std::optional<UTF8Scalar> firstScalar(std::string_view text) {
  if (text.empty()) return std::nullopt;
  const auto byteAt = [text](std::size_t at) { return std::uint32_t{static_cast<std::uint8_t>(text[at])}; };
  const std::uint32_t lead = byteAt(0);
  if (lead < 0x80) return UTF8Scalar{.value = lead, .bytes = 1};
  std::size_t length = 2;
  if (lead >= 0xE0) length = lead >= 0xF0 ? 4 : 3;
  if (lead < 0xC0 || lead > 0xF7 || text.size() < length) return std::nullopt;
  std::uint32_t value = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byteAt(i) & 0xC0U) != 0x80) return std::nullopt;
    value = (value << 6U) | (byteAt(i) & 0x3FU);
  }
  constexpr std::array<std::uint32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
  if (value < smallest.at(length) || value > 0x10FFFF) return std::nullopt;
  return UTF8Scalar{.value = value, .bytes = length};
}

void appendScalar(std::string& text, std::uint32_t scalar) {
  const auto continuation = [scalar](unsigned shift) { return static_cast<char>(0x80U | ((scalar >> shift) & 0x3FU)); };
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

std::string textFromUTF16(std::string_view units) {
  std::string text;
  for (std::size_t i = 0; i + 1 < units.size(); i += 2) {
    const std::uint32_t unit = unitAt(units, i);
    const std::uint32_t next = i + 3 < units.size() ? unitAt(units, i + 2) : 0;
    const bool isPair = isHighSurrogate(unit) && isLowSurrogate(next);
    appendScalar(text, isPair ? 0x10000 + ((unit & 0x3FFU) << 10U) + (next & 0x3FFU) : unit);
    if (isPair) i += 2;
  }
  return text;
}

std::optional<std::string> utf16FromText(std::string_view text) {
  std::string units;
  std::uint32_t previous = 0;
  while (!text.empty()) {
    const auto scalar = firstScalar(text);
    // Two halves of a pair would come back as one code point.
    if (!scalar || (isHighSurrogate(previous) && isLowSurrogate(scalar->value))) return std::nullopt;
    if (scalar->value < 0x10000) {
      appendUnit(units, scalar->value);
    } else {
      appendUnit(units, 0xD800 + ((scalar->value - 0x10000) >> 10U));
      appendUnit(units, 0xDC00 + (scalar->value & 0x3FFU));
    }
    previous = scalar->value;
    text.remove_prefix(scalar->bytes);
  }
  return units;
}

}  // namespace platform
