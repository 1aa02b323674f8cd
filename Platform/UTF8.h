#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// One code point and how many bytes of UTF-8 it takes.
struct UTF8Scalar {
  std::uint32_t value;
  std::size_t bytes;
};

/// The first code point of the text; absent when the text is empty or begins with anything but well-formed UTF-8.
/// Surrogates count as well-formed here, because a text of UTF-16 can hold one without its partner.
[[nodiscard]] std::optional<UTF8Scalar> firstScalar(std::string_view text);

void appendScalar(std::string& text, std::uint32_t scalar);

/// Big-endian UTF-16 to UTF-8. `units` has an even number of bytes.
[[nodiscard]] std::string textFromUTF16(std::string_view units);

/// The way back; absent for a text that textFromUTF16 does not make.
[[nodiscard]] std::optional<std::string> utf16FromText(std::string_view text);

}  // namespace platform
