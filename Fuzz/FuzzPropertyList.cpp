#include "FuzzSupport.h"
#include "Platform/PropertyList.h"

using platform::PropertyList;

/// Property lists as they are read from bundles, preferences and jobs. What was read can be written in both forms, and
/// what has been written once no longer changes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto list = PropertyList::parse(fuzz::textOf(data, size));
  if (!list) return 0;
  for (const auto format : {PropertyList::Format::xml, PropertyList::Format::binary}) {
    const auto again = PropertyList::parse(list->serialized(format));
    fuzz::require(again.has_value());
    const auto once = again->serialized(format);
    const auto third = PropertyList::parse(once);
    fuzz::require(third && third->serialized(format) == once);
  }
  return 0;
}
