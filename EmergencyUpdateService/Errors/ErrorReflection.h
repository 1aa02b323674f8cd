#pragma once

#include "Platform/NSError.h"

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace corvane {

/// One case of an enumeration, with what is associated with it.
struct EnumCase {
  /// Associated values that are no enumerations appear by their textual description (texts in quotes).
  using Payload = std::variant<std::string, EnumCase>;

  /// Module and enclosing types included; shown where this case stands inside another.
  std::string_view qualifiedTypeName;
  std::string_view name;
  std::vector<Payload> payloads;
};

/// What an error value tells of itself: all that messages and sanitized descriptions are made from.
struct ErrorReflection {
  enum class DisplayStyle { enumeration, structure, classInstance, other };

  DisplayStyle displayStyle = DisplayStyle::other;
  std::string_view typeName;         // without module and enclosing types
  std::string_view domain;           // as a platform error: the type name in full
  std::int64_t code = 1;             // as a platform error; of an enumeration the index of its case
  std::string description;           // textual, of a structure
  std::optional<EnumCase> enumCase;  // of an enumeration
  std::optional<platform::NSError> underlyingError;
};

/// An error type says what it is by one function beside it, `ErrorReflection errorReflection(const E&)`. A type without
/// it cannot be logged as an error; the compiler says so.
template <class E>
concept ReflectedError = requires(const E& error) {
  { errorReflection(error) } -> std::same_as<ErrorReflection>;
};

/// An error type that declares the platform domain and code of its values itself.
template <class E>
concept CustomNSError = ReflectedError<E> && requires(const E& error) {
  { E::errorDomain() } -> std::convertible_to<std::string_view>;
  { error.errorCode() } -> std::convertible_to<std::int64_t>;
};

/// An error type that states the code of its sanitized description; it outranks a CustomNSError's.
template <class E>
concept CodifiedError = ReflectedError<E> && requires(const E& error) {
  { error.code() } -> std::convertible_to<std::int64_t>;
};

/// A type with a description that holds no user data and may stand in sanitized descriptions.
template <class E>
concept PrivacyPreservingError = requires(const E& error) {
  { error.safeDescription() } -> std::convertible_to<std::string>;
};

}  // namespace corvane
