#pragma once

#include "Platform/NSError.h"

#include <cstdint>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace platform {

/// A property-list value with its own kind: a Boolean is not a number and a number is not a string, and nothing here
/// converts one into another. An immutable tree in use; any thread.
///
/// Left out of the real thing: UIDs of keyed archives (read as integers) and integers beyond 64 bits.
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

  PropertyList(bool value) : value_(value) {}                      // NOLINT(google-explicit-constructor)
  PropertyList(std::int64_t value) : value_(value) {}              // NOLINT(google-explicit-constructor)
  PropertyList(int value) : value_(std::int64_t{value}) {}         // NOLINT(google-explicit-constructor)
  PropertyList(double value) : value_(value) {}                    // NOLINT(google-explicit-constructor)
  PropertyList(std::string value) : value_(std::move(value)) {}    // NOLINT(google-explicit-constructor)
  PropertyList(const char* value) : value_(std::string(value)) {}  // NOLINT(google-explicit-constructor)
  PropertyList(Data value) : value_(std::move(value)) {}           // NOLINT(google-explicit-constructor)
  PropertyList(Date value) : value_(value) {}                      // NOLINT(google-explicit-constructor)
  PropertyList(Array value) : value_(std::move(value)) {}          // NOLINT(google-explicit-constructor)
  PropertyList(Dictionary value) : value_(std::move(value)) {}     // NOLINT(google-explicit-constructor)

  /// The value when it is of just this kind, else null.
  template <class Kind>
  [[nodiscard]] const Kind* as() const {
    return std::get_if<Kind>(&value_);
  }
  [[nodiscard]] const std::string* string() const { return as<std::string>(); }
  [[nodiscard]] const Dictionary* dictionary() const { return as<Dictionary>(); }

  /// An integer or a real as double precision; absent for every other kind, Booleans included.
  [[nodiscard]] std::optional<double> number() const;

  /// The value under `key` of a dictionary; null when this is no dictionary or has no such key.
  [[nodiscard]] const PropertyList* operator[](std::string_view key) const;

  bool operator==(const PropertyList&) const = default;

  /// Reads an XML or a binary property list (told apart by its first bytes). Anything that is neither, is nested deeper
  /// than 256 levels, or is larger than `maximumBytes` is NSPropertyListReadCorruptError.
  static constexpr std::size_t maximumBytes = std::size_t{64} << 20U;
  static std::expected<PropertyList, NSError> parse(std::string_view bytes);

  enum class Format { xml, binary };
  [[nodiscard]] std::string serialized(Format format) const;

 private:
  std::variant<bool, std::int64_t, double, std::string, Data, Date, Array, Dictionary> value_;
};

}  // namespace platform
