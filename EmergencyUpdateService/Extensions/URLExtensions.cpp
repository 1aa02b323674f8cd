#include "Extensions/URLExtensions.h"

#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

namespace corvane {

platform::URL urlFromStaticString(std::string_view staticString) {
  auto url = platform::URL::parse(staticString);
  if (!url) {
    fmt::print(stderr, "Fatal error: Failed to parse static URL: `{}`\n", staticString);
    std::abort();
  }
  return std::move(*url);
}

}  // namespace corvane
