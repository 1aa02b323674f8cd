#pragma once

#include "Platform/NSError.h"

#include <cstdint>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace platform {

/// A property-list value with its own kind: a Boolean is not a number and a number is not a string, and nothing here
/// converts one into another. An immutable tree in use; any thread.
///
/// Strings are UTF-8 and may hold NUL. What a binary property list can hold beyond that is kept as well, so that it can
/// be written back: a surrogate without its partner (in the three bytes UTF-8 would have for it) and, in the form for
/// ASCII, any bytes at all. Left out of the real thing: integers beyond 64 bits, null and sets.
class PropertyList {
 public:
  using Data = std::vector<std::uint8_t>;
  using Array = std::vector<PropertyList>;
  using Dictionary = std::map<std::string, PropertyList, std::less<>>;
  /// Seconds since 2001-01-01 00:00:00 UTC, the platform's reference date.
  struct Date {
    double secondsSinceReferenceDate;
    bool operator==(const Date&) const = default;
  };
  /// A reference within a keyed archive.
  struct UID {
    std::uint32_t value;
    bool operator==(const UID&) const = default;
  };

  PropertyList(bool value) : value_(value) {}                      // NOLINT(google-explicit-constructor)
  PropertyList(std::int64_t value) : value_(value) {}              // NOLINT(google-explicit-constructor)
  PropertyList(std::uint64_t value) : value_(integer(value)) {}    // NOLINT(google-explicit-constructor)
  PropertyList(int value) : value_(std::int64_t{value}) {}         // NOLINT(google-explicit-constructor)
  PropertyList(double value) : value_(value) {}                    // NOLINT(google-explicit-constructor)
  PropertyList(std::string value) : value_(std::move(value)) {}    // NOLINT(google-explicit-constructor)
  PropertyList(const char* value) : value_(std::string(value)) {}  // NOLINT(google-explicit-constructor)
  PropertyList(Data value) : value_(std::move(value)) {}           // NOLINT(google-explicit-constructor)
  PropertyList(Date value) : value_(value) {}                      // NOLINT(google-explicit-constructor)
  PropertyList(UID value) : value_(value) {}                       // NOLINT(google-explicit-constructor)
  PropertyList(Array value) : value_(std::move(value)) {}          // NOLINT(google-explicit-constructor)
  PropertyList(Dictionary value) : value_(std::move(value)) {}     // NOLINT(google-explicit-constructor)

  /// The value when it is of just this kind, else null. An integer is a std::int64_t, and a std::uint64_t only beyond
  /// that one's range.
  template <class Kind>
  [[nodiscard]] const Kind* as() const {
    return std::get_if<Kind>(&value_);
  }
  [[nodiscard]] const std::string* string() const { return as<std::string>(); }
  [[nodiscard]] const Dictionary* dictionary() const { return as<Dictionary>(); }

  /// An integer or a real as double precision; absent for every other kind, Booleans included.
  [[nodiscard]] std::optional<double> number() const;

  /// An integer that is not negative; absent for everything else.
  [[nodiscard]] std::optional<std::uint64_t> unsignedInteger() const;

  /// The value under `key` of a dictionary; null when this is no dictionary or has no such key.
  [[nodiscard]] const PropertyList* operator[](std::string_view key) const;

  bool operator==(const PropertyList&) const = default;

  /// Calls the visitor with the value in its own kind.
  template <class Visitor>
  decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), value_);
  }

  /// Reads an XML or a binary property list (told apart by its first bytes). Anything that is neither, is nested deeper
  /// than `maximumDepth`, has more than `maximumValues` values and keys, or is larger than `maximumBytes` is
  /// NSPropertyListReadCorruptError. What was read is written exactly as it was, by the XML form within its
  /// bounds (of what is no number only that, and text in the form for ASCII that is UTF-8 becomes UTF-16).
  static constexpr std::size_t maximumBytes = std::size_t{64} << 20U;
  static constexpr std::size_t maximumDepth = 256;
  static constexpr std::size_t maximumValues = 1'000'000;
  static std::expected<PropertyList, NSError> parse(std::string_view bytes);

  /// XML cannot hold everything: BinaryPropertyListWriter.h and XMLPropertyListWriter.h say what becomes of it.
  enum class Format { xml, binary };
  [[nodiscard]] std::string serialized(Format format) const;

 private:
  using Value =
      std::variant<bool, std::int64_t, std::uint64_t, double, std::string, Data, Date, UID, Array, Dictionary>;

  static Value integer(std::uint64_t value) {
    return std::in_range<std::int64_t>(value) ? Value(static_cast<std::int64_t>(value)) : Value(value);
  }

  Value value_;
};

}  // namespace platform
