#include "Extensions/StringExtensions.h"

#include <cstdint>

namespace corvane {
namespace {

/// Of a sequence of more than one byte, by its first.
std::size_t sequenceLength(std::uint8_t lead) {
  if (lead >= 0xF0) return 4;
  return lead >= 0xE0 ? 3 : 2;
}

}  // namespace

bool isUTF8(std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size();) {
    const auto lead = static_cast<std::uint8_t>(bytes[i]);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    const std::size_t length = sequenceLength(lead);
    if (lead < 0xC2 || lead > 0xF4 || i + length > bytes.size()) return false;
    std::uint32_t scalar = lead & (0xFFU >> (length + 1));
    for (std::size_t k = 1; k < length; ++k) {
      const auto byte = static_cast<std::uint8_t>(bytes[i + k]);
      if ((byte & 0xC0U) != 0x80) return false;
      scalar = (scalar << 6U) | (byte & 0x3FU);
    }
    const bool overlong = (length == 3 && scalar < 0x800) || (length == 4 && scalar < 0x10000);
    const bool surrogate = scalar >= 0xD800 && scalar <= 0xDFFF;
    if (overlong || surrogate || scalar > 0x10FFFF) return false;
    i += length;
  }
  return true;
}

}  // namespace corvane
