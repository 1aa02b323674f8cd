#include "Platform/BinaryPropertyListWriter.h"

#include "Platform/UTF8.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <ranges>
#include <vector>

namespace platform {
namespace {

void appendInteger(std::string& bytes, std::uint64_t value, unsigned width) {
  for (unsigned i = width; i > 0; --i) bytes += static_cast<char>((value >> (8U * (i - 1))) & 0xFFU);
}

/// log2 of the number of bytes the value takes.
unsigned powerFor(std::uint64_t value) {
  if (value > 0xFFFFFFFFU) return 3;
  if (value > 0xFFFFU) return 2;
  return value > 0xFFU ? 1 : 0;
}

/// A marker byte and a number of `width` bytes.
std::string marked(unsigned marker, std::uint64_t value, unsigned width) {
  std::string bytes(1, static_cast<char>(marker));
  appendInteger(bytes, value, width);
  return bytes;
}

std::string integerObject(std::uint64_t value, unsigned power) {
  return marked(0x10U | power, value, 1U << power);
}

/// The kind in the upper half of the marker; the count in the lower one, or 15 there and an integer object after it.
std::string sized(unsigned kind, std::size_t count) {
  if (count < 15) return marked(kind | static_cast<unsigned>(count), 0, 0);
  return marked(kind | 0x0FU, 0, 0) + integerObject(count, powerFor(count));
}

/// An object of the format without its place in the file: the references that follow its bytes are numbers of objects.
struct Object {
  std::string bytes;
  std::vector<std::size_t> references;
};

/// Gathers the objects, each after those it refers to.
class BinaryWriter {
 public:
  std::string write(const PropertyList& root) {
    add(root);
    std::string bytes = "bplist00";
    const std::size_t last = objects_.size() - 1;
    const unsigned referenceBytes = 1U << powerFor(last);
    std::vector<std::size_t> offsets;
    // Backwards, so that the root stands first.
    for (const Object& object : objects_ | std::views::reverse) {
      offsets.push_back(bytes.size());
      bytes += object.bytes;
      for (const std::size_t number : object.references) appendInteger(bytes, last - number, referenceBytes);
    }
    const std::size_t offsetTable = bytes.size();
    const unsigned offsetBytes = 1U << powerFor(offsets.back());
    for (const std::size_t offset : offsets) appendInteger(bytes, offset, offsetBytes);
    appendInteger(bytes, 0, 6);
    appendInteger(bytes, offsetBytes, 1);
    appendInteger(bytes, referenceBytes, 1);
    appendInteger(bytes, objects_.size(), 8);
    appendInteger(bytes, 0, 8);
    appendInteger(bytes, offsetTable, 8);
    return bytes;
  }

  Object operator()(bool value) { return {marked(value ? 0x09 : 0x08, 0, 0)}; }

  Object operator()(std::int64_t value) {
    // Only those of 8 bytes are signed.
    const auto bits = static_cast<std::uint64_t>(value);
    return {integerObject(bits, value < 0 ? 3 : powerFor(bits))};
  }

  Object operator()(std::uint64_t value) {
    Object object{marked(0x14, 0, 8)};
    appendInteger(object.bytes, value, 8);
    return object;
  }

  Object operator()(double value) {
    const auto bits = std::bit_cast<std::uint64_t>(value);
    if (!std::isfinite(value) || std::abs(value) <= std::numeric_limits<float>::max()) {
      const auto narrow = static_cast<float>(value);
      if (std::bit_cast<std::uint64_t>(double{narrow}) == bits) {
        return {marked(0x22, std::bit_cast<std::uint32_t>(narrow), 4)};
      }
    }
    return {marked(0x23, bits, 8)};
  }

  Object operator()(PropertyList::Date value) {
    return {marked(0x33, std::bit_cast<std::uint64_t>(value.secondsSinceReferenceDate), 8)};
  }

  Object operator()(PropertyList::UID value) {
    const unsigned width = 1U << powerFor(value.value);
    return {marked(0x80U | (width - 1), value.value, width)};
  }

  Object operator()(const std::string& text) {
    const bool isASCII = std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    const auto units = isASCII ? std::nullopt : utf16FromText(text);
    return {units ? sized(0x60, units->size() / 2) + *units : sized(0x50, text.size()) + text};
  }

  Object operator()(const PropertyList::Data& data) {
    return {sized(0x40, data.size()) + std::string(data.begin(), data.end())};
  }

  Object operator()(const PropertyList::Array& array) {
    Object object{sized(0xA0, array.size())};
    for (const auto& element : array) object.references.push_back(add(element));
    return object;
  }

  Object operator()(const PropertyList::Dictionary& entries) {
    Object object{sized(0xD0, entries.size())};
    for (const auto& [key, value] : entries) object.references.push_back(number((*this)(key)));
    for (const auto& [key, value] : entries) object.references.push_back(add(value));
    return object;
  }

 private:
  std::size_t add(const PropertyList& value) { return number(value.visit(*this)); }

  std::size_t number(Object object) {
    const bool isContainer = static_cast<unsigned char>(object.bytes.front()) >= 0xA0;
    if (!isContainer) {
      const auto [entry, isNew] = scalars_.emplace(object.bytes, objects_.size());
      if (!isNew) return entry->second;
    }
    objects_.push_back(std::move(object));
    return objects_.size() - 1;
  }

  std::vector<Object> objects_;
  std::map<std::string, std::size_t, std::less<>> scalars_;
};

}  // namespace

std::string binaryPropertyList(const PropertyList& value) {
  return BinaryWriter().write(value);
}

}  // namespace platform
