#include "FuzzSupport.h"
#include "Platform/PropertyList.h"
#include "Platform/UTF8.h"

#include <algorithm>
#include <cmath>

using platform::PropertyList;

namespace {

/// Whether a format holds a value as it is, so that what is read back equals it; a NaN equals nothing.
class Holds {
 public:
  explicit Holds(PropertyList::Format format) : isXML_(format == PropertyList::Format::xml) {}

  bool operator()(double value) const { return !std::isnan(value); }
  bool operator()(PropertyList::Date date) const {
    const double seconds = date.secondsSinceReferenceDate;
    constexpr double someThirtyThousandYears = 1e12;
    return !std::isnan(seconds) &&
           (!isXML_ || (std::floor(seconds) == seconds && std::abs(seconds) < someThirtyThousandYears));
  }
  bool operator()(std::string_view text) const {
    while (isXML_ && !text.empty()) {
      const auto scalar = platform::firstScalar(text);
      if (!scalar || (scalar->value < 0x20 && !std::string_view("\t\n\r").contains(text.front())) ||
          (scalar->value >= 0xD800 && scalar->value < 0xE000) || scalar->value == 0xFFFE || scalar->value == 0xFFFF) {
        return false;
      }
      text.remove_prefix(scalar->bytes);
    }
    return true;
  }
  bool operator()(const PropertyList::Array& array) const {
    return std::ranges::all_of(array, [&](const auto& value) { return value.visit(*this); });
  }
  bool operator()(const PropertyList::Dictionary& entries) const {
    if (isXML_ && entries.contains("CF$UID")) return false;  // becomes a reference
    return std::ranges::all_of(entries, [&](const auto& entry) {
      return (*this)(std::string_view(entry.first)) && entry.second.visit(*this);
    });
  }
  bool operator()(const std::string& text) const { return (*this)(std::string_view(text)); }
  bool operator()(const auto& /*other*/) const { return true; }

 private:
  bool isXML_;
};

}  // namespace

/// Property lists as they are read from bundles, preferences and jobs. What was read can be written in both forms and
/// reads back as it was, as far as the form holds it; and what has been written once no longer changes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto list = PropertyList::parse(fuzz::textOf(data, size));
  if (!list) return 0;
  for (const auto format : {PropertyList::Format::xml, PropertyList::Format::binary}) {
    const auto again = PropertyList::parse(list->serialized(format));
    fuzz::require(again.has_value());
    fuzz::require(!list->visit(Holds(format)) || *again == *list);
    const auto once = again->serialized(format);
    const auto third = PropertyList::parse(once);
    fuzz::require(third && third->serialized(format) == once);
  }
  return 0;
}
