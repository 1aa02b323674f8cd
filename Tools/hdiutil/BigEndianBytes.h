#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tools {

/// Numbers and texts laid one behind the other, most significant byte first.
class BigEndianBytes {
 public:
  BigEndianBytes& text(std::string_view value) {
    bytes_ += value;
    return *this;
  }
  BigEndianBytes& zeros(std::size_t count) {
    bytes_.append(count, '\0');
    return *this;
  }
  BigEndianBytes& u32(std::uint32_t value) { return number(value, 4); }
  BigEndianBytes& u64(std::uint64_t value) { return number(value, 8); }

  [[nodiscard]] const std::string& bytes() const { return bytes_; }

 private:
  BigEndianBytes& number(std::uint64_t value, unsigned size) {
    for (unsigned shift = size * 8; shift != 0; shift -= 8) bytes_ += static_cast<char>(value >> (shift - 8) & 0xFFU);
    return *this;
  }

  std::string bytes_;
};

}  // namespace tools
