#include "Platform/PropertyList.h"

#include "Platform/BinaryPropertyList.h"
#include "Platform/BinaryPropertyListWriter.h"
#include "Platform/XMLPropertyList.h"
#include "Platform/XMLPropertyListWriter.h"

namespace platform {

std::optional<double> PropertyList::number() const {
  if (const auto* integer = as<std::int64_t>()) return static_cast<double>(*integer);
  if (const auto* integer = as<std::uint64_t>()) return static_cast<double>(*integer);
  if (const auto* real = as<double>()) return *real;
  return std::nullopt;
}

std::optional<std::uint64_t> PropertyList::unsignedInteger() const {
  if (const auto* integer = as<std::int64_t>(); integer != nullptr && *integer >= 0) {
    return static_cast<std::uint64_t>(*integer);
  }
  const auto* integer = as<std::uint64_t>();
  return integer == nullptr ? std::nullopt : std::optional(*integer);
}

const PropertyList* PropertyList::operator[](std::string_view key) const {
  const auto* entries = dictionary();
  if (entries == nullptr) return nullptr;
  const auto entry = entries->find(key);
  return entry == entries->end() ? nullptr : &entry->second;
}

std::expected<PropertyList, NSError> PropertyList::parse(std::string_view bytes) {
  std::optional<PropertyList> list;
  if (bytes.size() <= maximumBytes) {
    list = bytes.starts_with("bplist") ? parseBinaryPropertyList(bytes) : parseXMLPropertyList(bytes);
  }
  if (!list) return std::unexpected(NSError(NSCocoaErrorDomain, NSPropertyListReadCorruptError));
  return std::move(*list);
}

std::string PropertyList::serialized(Format format) const {
  return format == Format::xml ? xmlPropertyList(*this) : binaryPropertyList(*this);
}

}  // namespace platform
