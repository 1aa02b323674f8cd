#include "Platform/UUID.h"

#include <array>
#include <cstdint>
#include <cstdlib>

#include <fmt/format.h>
#include <sys/random.h>

namespace platform {

std::string makeUUID() {
  std::array<std::uint8_t, 16> bytes{};
  // Requests of up to 256 bytes are never cut short once the kernel's pool is ready.
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) std::abort();
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | 0x40U);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    fmt::format_to(std::back_inserter(text), "{:02X}", bytes[i]);
  }
  return text;
}

}  // namespace platform
