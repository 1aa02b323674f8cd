#pragma once

#include "Errors/ErrorReflection.h"
#include "Platform/NSError.h"

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace corvane {

/// Any error value: a platform error, a value of one of our own error types, or a list of errors. Immutable, cheap to
/// copy, any thread.
class AnyError {
 public:
  AnyError(platform::NSError error);       // NOLINT(google-explicit-constructor): every error is an AnyError
  AnyError(std::vector<AnyError> errors);  // NOLINT(google-explicit-constructor)
  template <ReflectedError E>
  AnyError(const E& error) : AnyError(programErrorOf(error)) {}  // NOLINT(google-explicit-constructor)

  /// The text that an error segment of a log message shows: "(NSError domain=… code=… userInfo=…)", "(Type.case)",
  /// "(description)" of a structure, "(Type)" otherwise, and of a list those of its elements, joined by ", ". It may
  /// hold whatever a platform error's user info holds.
  [[nodiscard]] std::string description() const;

  /// See sanitizedDescription(). A list is an error of the domain "Array" with the code 1; its elements stay out.
  [[nodiscard]] std::string sanitizedDescription() const;

 private:
  struct ProgramError {
    ErrorReflection reflection;
    std::string domain;
    std::int64_t code;
    std::optional<std::string> safeDescription;
  };

  template <ReflectedError E>
  static ProgramError programErrorOf(const E& error) {
    ErrorReflection reflection = errorReflection(error);
    ProgramError result{
        .reflection = {}, .domain = std::string(reflection.domain), .code = reflection.code, .safeDescription = {}};
    if constexpr (CustomNSError<E>) {
      result.domain = E::errorDomain();
      result.code = error.errorCode();
    }
    if constexpr (CodifiedError<E>) result.code = error.code();
    if constexpr (PrivacyPreservingError<E>) result.safeDescription = error.safeDescription();
    result.reflection = std::move(reflection);
    return result;
  }

  explicit AnyError(ProgramError error);

  using Storage = std::variant<platform::NSError, ProgramError, std::vector<AnyError>>;
  std::shared_ptr<const Storage> storage_;
};

/// The text that stands for an error in a message that may leave the machine:
/// "{Domain=…, Code=…[, Case=…][, UnderlyingError=…][, SafeDescription=…]}". It holds only what program or platform
/// define: of an enumeration's associated values just the case names of those that are enumerations, of a user-info
/// dictionary just the underlying error, by the same rule. A chain of underlying errors is cut after the sixteenth.
/// Never fails.
std::string sanitizedDescription(const AnyError& error);

}  // namespace corvane
