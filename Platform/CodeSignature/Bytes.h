#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace platform::codesignature {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// The `length` bytes at `offset` when they all lie inside `parent`.
[[nodiscard]] inline std::optional<ByteView> subrange(ByteView parent, std::uint64_t offset, std::uint64_t length) {
  if (offset > parent.size() || length > parent.size() - offset) return std::nullopt;
  return parent.subspan(static_cast<std::size_t>(offset), static_cast<std::size_t>(length));
}

enum class ByteOrder { bigEndian, littleEndian };

/// The unsigned integer at `offset`; absent when it does not lie inside `bytes`.
template <std::unsigned_integral Integer>
[[nodiscard]] std::optional<Integer> integerAt(ByteView bytes, std::uint64_t offset,
                                               ByteOrder order = ByteOrder::bigEndian) {
  const auto field = subrange(bytes, offset, sizeof(Integer));
  if (!field) return std::nullopt;
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < sizeof(Integer); ++i) {
    value = value << 8U | (*field)[order == ByteOrder::bigEndian ? i : sizeof(Integer) - 1 - i];
  }
  return static_cast<Integer>(value);
}

template <std::unsigned_integral Integer>
void appendInteger(Bytes& bytes, Integer value, ByteOrder order = ByteOrder::bigEndian) {
  for (std::size_t i = 0; i < sizeof(Integer); ++i) {
    const std::size_t shift = 8 * (order == ByteOrder::bigEndian ? sizeof(Integer) - 1 - i : i);
    bytes.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> shift));
  }
}

[[nodiscard]] inline ByteView viewOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
[[nodiscard]] inline std::string_view textOf(ByteView bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
[[nodiscard]] inline Bytes copyOf(ByteView bytes) {
  return {bytes.begin(), bytes.end()};
}

}  // namespace platform::codesignature
