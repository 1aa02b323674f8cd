#include "Errors/AnyError.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace corvane {
namespace {

constexpr int maximumUnderlyingErrors = 16;

/// The parts of one sanitized description.
struct SanitizedErrorDescriptionBuilder {
  std::string domain;
  std::int64_t code;
  std::optional<std::string> enumCase;
  std::optional<std::string> underlyingError;
  std::optional<std::string> safeDescription;

  [[nodiscard]] std::string description() const {
    std::string text = fmt::format("{{Domain={}, Code={}", domain, code);
    if (enumCase) text += ", Case=" + *enumCase;
    if (underlyingError) text += ", UnderlyingError=" + *underlyingError;
    if (safeDescription) text += ", SafeDescription=" + *safeDescription;
    return text + "}";
  }
};

/// The case's name and, in parentheses, those of the enumeration values associated with it.
std::string caseDescription(const EnumCase& enumCase) {
  std::vector<std::string> nested;
  for (const EnumCase::Payload& payload : enumCase.payloads) {
    if (const auto* value = std::get_if<EnumCase>(&payload)) nested.push_back(caseDescription(*value));
  }
  if (nested.empty()) return std::string(enumCase.name);
  return fmt::format("{}({})", enumCase.name, fmt::join(nested, ", "));
}

/// The default rendering of an enumeration value: the case with all its associated values.
std::string textualDescription(const EnumCase& enumCase) {
  if (enumCase.payloads.empty()) return std::string(enumCase.name);
  std::vector<std::string> payloads;
  for (const EnumCase::Payload& payload : enumCase.payloads) {
    const auto* value = std::get_if<EnumCase>(&payload);
    payloads.push_back(value == nullptr ? std::get<std::string>(payload)
                                        : fmt::format("{}.{}", value->qualifiedTypeName, textualDescription(*value)));
  }
  return fmt::format("{}({})", enumCase.name, fmt::join(payloads, ", "));
}

std::string sanitizedPlatformError(const platform::NSError& error, int depth) {
  SanitizedErrorDescriptionBuilder builder{
      .domain = error.domain(), .code = error.code(), .enumCase = {}, .underlyingError = {}, .safeDescription = {}};
  const platform::NSError* underlying = error.underlyingError();
  if (underlying != nullptr && depth < maximumUnderlyingErrors) {
    builder.underlyingError = sanitizedPlatformError(*underlying, depth + 1);
  }
  return builder.description();
}

std::string descriptionOfReflected(const ErrorReflection& error) {
  switch (error.displayStyle) {
    case ErrorReflection::DisplayStyle::enumeration:
      return fmt::format("({}.{})", error.typeName, error.enumCase ? textualDescription(*error.enumCase) : "");
    case ErrorReflection::DisplayStyle::structure:
      return fmt::format("({})", error.description);
    case ErrorReflection::DisplayStyle::classInstance:
    case ErrorReflection::DisplayStyle::other:
      break;
  }
  return fmt::format("({})", error.typeName);
}

}  // namespace

AnyError::AnyError(platform::NSError error) : storage_(std::make_shared<const Storage>(std::move(error))) {}
AnyError::AnyError(std::vector<AnyError> errors) : storage_(std::make_shared<const Storage>(std::move(errors))) {}
AnyError::AnyError(ProgramError error) : storage_(std::make_shared<const Storage>(std::move(error))) {}

std::string AnyError::description() const {
  if (const auto* error = std::get_if<platform::NSError>(storage_.get())) {
    return fmt::format("(NSError domain={} code={} userInfo={})", error->domain(), error->code(),
                       error->userInfoDescription());
  }
  if (const auto* error = std::get_if<ProgramError>(storage_.get())) return descriptionOfReflected(error->reflection);
  std::vector<std::string> texts;
  for (const AnyError& error : std::get<std::vector<AnyError>>(*storage_)) texts.push_back(error.description());
  return fmt::format("{}", fmt::join(texts, ", "));
}

std::string AnyError::sanitizedDescription() const {
  if (const auto* error = std::get_if<platform::NSError>(storage_.get())) return sanitizedPlatformError(*error, 0);
  SanitizedErrorDescriptionBuilder builder{
      .domain = "Array", .code = 1, .enumCase = {}, .underlyingError = {}, .safeDescription = {}};
  if (const auto* error = std::get_if<ProgramError>(storage_.get())) {
    builder.domain = error->domain;
    builder.code = error->code;
    if (error->reflection.enumCase) builder.enumCase = caseDescription(*error->reflection.enumCase);
    if (const auto& underlying = error->reflection.underlyingError) {
      builder.underlyingError = sanitizedPlatformError(*underlying, 1);
    }
    builder.safeDescription = error->safeDescription;
  }
  return builder.description();
}

std::string sanitizedDescription(const AnyError& error) {
  return error.sanitizedDescription();
}

}  // namespace corvane
