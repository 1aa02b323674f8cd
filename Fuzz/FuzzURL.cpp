#include "FuzzSupport.h"
#include "Platform/URL.h"

/// URL texts of the list, and the same as paths. What parsed must parse again to the same URL.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using platform::URL;
  const auto file = URL::fileURL("/" + std::string(fuzz::textOf(data, size)));
  const auto sameFile = URL::parse(file.absoluteString());
  fuzz::require(sameFile && sameFile->isFileURL() && sameFile->path() == file.path());
  const auto url = URL::parse(fuzz::textOf(data, size));
  if (!url) return 0;
  const auto again = URL::parse(url->absoluteString());
  fuzz::require(again && *again == *url && again->path() == url->path() && again->scheme() == url->scheme());
  return 0;
}
