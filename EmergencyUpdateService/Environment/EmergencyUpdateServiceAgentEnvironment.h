#pragma once

#include "Platform/Bundle.h"
#include "Platform/FileManager.h"

#include <optional>
#include <string>

namespace corvane {

/// Where the agent itself is installed and registered.
struct EmergencyUpdateServiceAgentEnvironment {
  std::string bundleIdentifier;
  std::optional<platform::URL> configPlistURL;  // its launch-agent property list; absent without a Library directory
  platform::URL installationURL;                // its own bundle

  /// Absent when the main bundle has no identifier.
  static std::optional<EmergencyUpdateServiceAgentEnvironment> current(const platform::Bundle& mainBundle,
                                                                       const platform::SearchPaths& searchPaths);
};

}  // namespace corvane
