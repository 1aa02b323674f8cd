#include "Platform/PropertyList.h"

#include "Platform/BinaryPropertyList.h"
#include "Platform/PropertyListNesting.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

#include <plist/plist.h>

namespace platform {
namespace {

constexpr int maximumDepth = 256;

struct PlistFree {
  void operator()(void* node) const { plist_free(node); }
};
using PlistNode = std::unique_ptr<void, PlistFree>;

NSError corrupt() {
  return {NSCocoaErrorDomain, NSPropertyListReadCorruptError};
}

std::expected<PropertyList, NSError> imported(plist_t node, int depth);

std::expected<PropertyList, NSError> importedArray(plist_t node, int depth) {
  PropertyList::Array array;
  const std::uint32_t count = plist_array_get_size(node);
  array.reserve(count);
  plist_array_iter iterator = nullptr;
  plist_array_new_iter(node, &iterator);
  const std::unique_ptr<void, decltype(&free)> release(iterator, &free);
  for (std::uint32_t i = 0; i < count; ++i) {
    plist_t item = nullptr;
    plist_array_next_item(node, iterator, &item);
    if (item == nullptr) break;
    auto value = imported(item, depth + 1);
    if (!value) return value;
    array.push_back(std::move(*value));
  }
  return array;
}

std::expected<PropertyList, NSError> importedDictionary(plist_t node, int depth) {
  PropertyList::Dictionary dictionary;
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(node, &iterator);
  const std::unique_ptr<void, decltype(&free)> release(iterator, &free);
  while (true) {
    char* key = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(node, iterator, &key, &item);
    if (key == nullptr) break;
    const std::unique_ptr<char, decltype(&free)> ownedKey(key, &free);
    auto value = imported(item, depth + 1);
    if (!value) return value;
    dictionary.insert_or_assign(key, std::move(*value));
  }
  return dictionary;
}

std::expected<PropertyList, NSError> imported(plist_t node, int depth) {
  if (node == nullptr || depth > maximumDepth) return std::unexpected(corrupt());
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return PropertyList(value != 0);
    }
    case PLIST_UINT: {
      // Negative integers come as their two's complement.
      std::uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return PropertyList(static_cast<std::int64_t>(value));
    }
    case PLIST_UID: {
      std::uint64_t value = 0;
      plist_get_uid_val(node, &value);
      return PropertyList(static_cast<std::int64_t>(value));
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return PropertyList(value);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return PropertyList(text == nullptr ? std::string() : std::string(text, length));
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      return PropertyList(bytes == nullptr ? PropertyList::Data() : PropertyList::Data(bytes, bytes + length));
    }
    case PLIST_DATE: {
      std::int32_t seconds = 0;
      std::int32_t microseconds = 0;
      plist_get_date_val(node, &seconds, &microseconds);
      return PropertyList(PropertyList::Date{seconds + (microseconds / 1e6)});
    }
    case PLIST_ARRAY:
      return importedArray(node, depth);
    case PLIST_DICT:
      return importedDictionary(node, depth);
    default:
      return std::unexpected(corrupt());
  }
}

plist_t exported(const PropertyList& value) {
  if (const auto* boolean = value.as<bool>()) return plist_new_bool(*boolean ? 1 : 0);
  if (const auto* integer = value.as<std::int64_t>()) return plist_new_uint(static_cast<std::uint64_t>(*integer));
  if (const auto* real = value.as<double>()) return plist_new_real(*real);
  if (const auto* text = value.as<std::string>()) return plist_new_string(text->c_str());
  if (const auto* data = value.as<PropertyList::Data>()) {
    return plist_new_data(reinterpret_cast<const char*>(data->data()), data->size());
  }
  if (const auto* date = value.as<PropertyList::Date>()) {
    // The library keeps 32-bit seconds; what is no number at all becomes the reference date.
    constexpr double limit = std::numeric_limits<std::int32_t>::max();
    const double time = date->secondsSinceReferenceDate;
    const double bounded = std::isnan(time) ? 0 : std::clamp(time, -limit, limit);
    const double seconds = std::floor(bounded);
    const double microseconds = (bounded - seconds) * 1e6;
    return plist_new_date(static_cast<std::int32_t>(seconds), static_cast<std::int32_t>(microseconds));
  }
  if (const auto* array = value.as<PropertyList::Array>()) {
    plist_t node = plist_new_array();
    for (const auto& item : *array) plist_array_append_item(node, exported(item));
    return node;
  }
  plist_t node = plist_new_dict();
  for (const auto& [key, item] : *value.dictionary()) plist_dict_set_item(node, key.c_str(), exported(item));
  return node;
}

}  // namespace

std::optional<double> PropertyList::number() const {
  if (const auto* integer = as<std::int64_t>()) return static_cast<double>(*integer);
  if (const auto* real = as<double>()) return *real;
  return std::nullopt;
}

const PropertyList* PropertyList::operator[](std::string_view key) const {
  const auto* entries = dictionary();
  if (entries == nullptr) return nullptr;
  const auto entry = entries->find(key);
  return entry == entries->end() ? nullptr : &entry->second;
}

std::expected<PropertyList, NSError> PropertyList::parse(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > maximumBytes) return std::unexpected(corrupt());
  if (bytes.starts_with("bplist")) {
    auto list = parseBinaryPropertyList(bytes);
    return list ? std::expected<PropertyList, NSError>(std::move(*list)) : std::unexpected(corrupt());
  }
  // The library takes apart what it has read by recursion, and decodes entities by moving the rest of the text.
  if (!isCheapToParse(bytes, maximumDepth)) return std::unexpected(corrupt());
  plist_t root = nullptr;
  plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
  const PlistNode owned(root);
  return imported(root, 0);
}

std::string PropertyList::serialized(Format format) const {
  const PlistNode root(exported(*this));
  char* bytes = nullptr;
  std::uint32_t length = 0;
  if (format == Format::xml) {
    plist_to_xml(root.get(), &bytes, &length);
  } else {
    plist_to_bin(root.get(), &bytes, &length);
  }
  const std::unique_ptr<char, decltype(&free)> release(bytes, &free);
  return bytes == nullptr ? std::string() : std::string(bytes, length);
}

}  // namespace platform
