#pragma once

#include <concepts>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace corvane {

nlohmann::ordered_json encode(const std::vector<std::string>& texts);
std::string description(const std::vector<std::string>& texts);

/// A value that can be attached to a record: a function `encode(const T&)` beside its type makes the JSON value.
template <class T>
concept Encodable = requires(const T& value) {
  { encode(value) } -> std::same_as<nlohmann::ordered_json>;
};

/// An encodable value that has a textual description as well: a function `description(const T&)` beside its type.
template <class T>
concept CustomStringConvertible = requires(const T& value) {
  { description(value) } -> std::same_as<std::string>;
};

/// The optional structured data of a record. Refers to the value, so it lives no longer than the log call.
class EmergencyUpdateServiceLogExtra {
 public:
  EmergencyUpdateServiceLogExtra() = default;

  template <Encodable T>
  EmergencyUpdateServiceLogExtra(const T& value);  // NOLINT(google-explicit-constructor)

  [[nodiscard]] bool isPresent() const { return value_ != nullptr; }
  /// The JSON value; only of a present one.
  [[nodiscard]] nlohmann::ordered_json encoded() const;
  /// Absent when the value's type has none.
  [[nodiscard]] std::optional<std::string> textualDescription() const;

 private:
  struct Operations {
    void (*encodeInto)(const void* value, nlohmann::ordered_json& json);
    std::optional<std::string> (*describe)(const void* value);
  };

  template <Encodable T>
  static void encodeInto(const void* value, nlohmann::ordered_json& json) {
    json = encode(*static_cast<const T*>(value));
  }

  template <Encodable T>
  static std::optional<std::string> describe([[maybe_unused]] const void* value) {
    if constexpr (CustomStringConvertible<T>) {
      return description(*static_cast<const T*>(value));
    } else {
      return std::nullopt;
    }
  }

  template <Encodable T>
  static constexpr Operations operationsOf{&encodeInto<T>, &describe<T>};

  const void* value_ = nullptr;
  const Operations* operations_ = nullptr;
};

template <Encodable T>
EmergencyUpdateServiceLogExtra::EmergencyUpdateServiceLogExtra(const T& value)
    : value_(&value), operations_(&operationsOf<T>) {}

}  // namespace corvane
