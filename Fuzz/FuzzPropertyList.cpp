#include "Platform/PropertyList.h"

#include <cstdint>
#include <string_view>

/// Property lists as they are read from bundles, preferences and jobs. What was read must survive being written.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using platform::PropertyList;
  const auto list = PropertyList::parse({reinterpret_cast<const char*>(data), size});
  if (list) static_cast<void>(list->serialized(PropertyList::Format::xml));
  return 0;
}
