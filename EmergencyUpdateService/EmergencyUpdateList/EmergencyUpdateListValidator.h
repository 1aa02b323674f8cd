#pragma once

#include "EmergencyUpdateList/EmergencyUpdateContext.h"
#include "EmergencyUpdateList/EmergencyUpdateList.h"
#include "Errors/ErrorReflection.h"

#include <expected>
#include <string_view>
#include <variant>
#include <vector>

namespace corvane {

/// Decides what the list asks this machine to do. Pure; any thread.
class EmergencyUpdateListValidator {
 public:
  /// The entry that was chosen leaves nothing to perform.
  enum class ValidationFailure { noActions };

  struct NoUpdates {  // the list is empty
    bool operator==(const NoUpdates&) const = default;
  };
  struct NoMatches {
    bool operator==(const NoMatches&) const = default;
  };
  struct Matched {
    std::vector<EmergencyUpdateList::Update::Action> actions;  // never empty
    bool operator==(const Matched&) const = default;
  };
  using ValidationOutcome = std::variant<NoUpdates, NoMatches, Matched>;

  /// The last entry in document order that matches is chosen, and no other tried; of its actions remain a dry run alone
  /// if there is one, else the first install.
  [[nodiscard]] std::expected<ValidationOutcome, ValidationFailure> validate(
      const EmergencyUpdateList& list, const EmergencyUpdateContext& context) const;
};

ErrorReflection errorReflection(EmergencyUpdateListValidator::ValidationFailure failure);

/// Whether the dot-separated components that pattern and version both have are equal, as texts, pairwise from the
/// first: "1.2" matches 1.2, 1.2.7 and 1, but neither 1.20 nor 01.2.
bool matchesVersionPattern(std::string_view pattern, std::string_view version);

}  // namespace corvane
