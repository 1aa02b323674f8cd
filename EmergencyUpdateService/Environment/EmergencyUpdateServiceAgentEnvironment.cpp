#include "Environment/EmergencyUpdateServiceAgentEnvironment.h"

namespace corvane {

std::optional<EmergencyUpdateServiceAgentEnvironment> EmergencyUpdateServiceAgentEnvironment::current(
    const platform::Bundle& mainBundle, const platform::SearchPaths& searchPaths) {
  if (!mainBundle.bundleIdentifier) return std::nullopt;
  EmergencyUpdateServiceAgentEnvironment environment{
      .bundleIdentifier = *mainBundle.bundleIdentifier, .configPlistURL = {}, .installationURL = mainBundle.bundleURL};
  if (const auto library = searchPaths.userLibraryDirectory()) {
    environment.configPlistURL = library->appendingPathComponent("LaunchAgents", platform::URL::PathKind::directory)
                                     .appendingPathComponent(environment.bundleIdentifier + ".plist");
  }
  return environment;
}

}  // namespace corvane
