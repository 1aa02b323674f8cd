#include "EmergencyUpdateList/EmergencyUpdateListValidator.h"

#include <algorithm>
#include <ranges>
#include <string>

namespace corvane {
namespace {

using Update = EmergencyUpdateList::Update;

bool matchesAnyPattern(const std::vector<std::string>& patterns, std::string_view version) {
  return std::ranges::any_of(patterns,
                             [&](const std::string& pattern) { return matchesVersionPattern(pattern, version); });
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  const auto lowercased = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; };
  return std::ranges::equal(a, b, {}, lowercased, lowercased);
}

bool matches(const Update& update, const EmergencyUpdateContext& context) {
  if (!matchesAnyPattern(update.appVersions, context.appBundleVersion)) return false;
  if (update.osVersions && !update.osVersions->empty() && !matchesAnyPattern(*update.osVersions, context.osVersion)) {
    return false;
  }
  if (!update.devicePlatforms || update.devicePlatforms->empty()) return true;
  return std::ranges::any_of(*update.devicePlatforms, [&](Update::DevicePlatform platform) {
    return equalIgnoringCase(rawValue(platform), context.devicePlatform);
  });
}

/// What to perform of an entry's actions. `Unknown` actions are none; a dry run displaces all others; of several
/// installs the first counts.
std::vector<Update::Action> reduced(const std::vector<Update::Action>& actions) {
  const auto isDryRun = [](const Update::Action& action) { return std::holds_alternative<Update::DryRun>(action); };
  if (std::ranges::any_of(actions, isDryRun)) return {Update::DryRun{}};
  const auto install = std::ranges::find_if(
      actions, [](const Update::Action& action) { return std::holds_alternative<Update::Install>(action); });
  if (install == actions.end()) return {};
  return {*install};
}

}  // namespace

bool matchesVersionPattern(std::string_view pattern, std::string_view version) {
  // As long as both have a component left, the next pair must be equal.
  while (true) {
    const std::size_t patternEnd = pattern.find('.');
    const std::size_t versionEnd = version.find('.');
    if (pattern.substr(0, patternEnd) != version.substr(0, versionEnd)) return false;
    if (patternEnd == std::string_view::npos || versionEnd == std::string_view::npos) return true;
    pattern.remove_prefix(patternEnd + 1);
    version.remove_prefix(versionEnd + 1);
  }
}

std::expected<EmergencyUpdateListValidator::ValidationOutcome, EmergencyUpdateListValidator::ValidationFailure>
EmergencyUpdateListValidator::validate(const EmergencyUpdateList& list, const EmergencyUpdateContext& context) const {
  if (list.updates.empty()) return NoUpdates{};
  const auto lastFirst = list.updates | std::views::reverse;
  const auto chosen = std::ranges::find_if(lastFirst, [&](const Update& update) { return matches(update, context); });
  if (chosen == lastFirst.end()) return NoMatches{};
  std::vector<Update::Action> actions = reduced(chosen->actions);
  if (actions.empty()) return std::unexpected(ValidationFailure::noActions);
  return Matched{.actions = std::move(actions)};
}

ErrorReflection errorReflection(EmergencyUpdateListValidator::ValidationFailure failure) {
  static constexpr std::string_view qualifiedName =
      "Corvane_Desktop_Update_Service.EmergencyUpdateListValidator.ValidationFailure";
  return {.displayStyle = ErrorReflection::DisplayStyle::enumeration,
          .typeName = "ValidationFailure",
          .domain = qualifiedName,
          .code = static_cast<std::int64_t>(failure),
          .description = {},
          .enumCase = EnumCase{.qualifiedTypeName = qualifiedName, .name = "noActions", .payloads = {}}};
}

}  // namespace corvane
