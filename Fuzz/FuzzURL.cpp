#include "FuzzSupport.h"
#include "Platform/URL.h"

/// URL texts of the list. What parsed must parse again to the same URL.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto url = platform::URL::parse(fuzz::textOf(data, size));
  if (!url) return 0;
  const auto again = platform::URL::parse(url->absoluteString());
  fuzz::require(again && *again == *url && again->path() == url->path() && again->scheme() == url->scheme());
  return 0;
}
