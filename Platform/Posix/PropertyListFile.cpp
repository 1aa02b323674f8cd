#include "Posix/PropertyListFile.h"

#include "Posix/RegularFile.h"

namespace platform::posix {

std::optional<PropertyList> readDictionary(const std::string& machinePath) {
  const auto bytes = readRegularFile(machinePath, PropertyList::maximumBytes);
  if (!bytes) return std::nullopt;
  auto plist = PropertyList::parse(*bytes);
  if (!plist || plist->dictionary() == nullptr) return std::nullopt;
  return std::move(*plist);
}

}  // namespace platform::posix
