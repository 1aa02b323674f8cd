#include "Platform/URL.h"

#include <cstdint>
#include <string_view>

/// URL texts of the list. What parsed must parse again to the same URL.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto url = platform::URL::parse({reinterpret_cast<const char*>(data), size});
  if (!url) return 0;
  const auto again = platform::URL::parse(url->absoluteString());
  if (!again || *again != *url || again->path() != url->path() || again->scheme() != url->scheme()) __builtin_trap();
  return 0;
}
