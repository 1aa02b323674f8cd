#pragma once

#include "Platform/URL.h"

#include <string>

namespace corvane {

/// The fixed endpoints the agent talks to. There is one value, production(); a development build gets other hosts
/// through the build's CORVANE_BACKEND_HOST, CORVANE_DOWNLOAD_HOST and CORVANE_LOG_HOST, not at run time.
struct EmergencyUpdateServiceBackendEnvironment {
  std::string origin;       // web origin, without path or trailing slash
  std::string application;  // names this program to the log collector
  platform::URL emergencyUpdateList;
  platform::URL nimbet;  // the remote log collector

  /// Made on first use, then shared. Any thread.
  static const EmergencyUpdateServiceBackendEnvironment& production();
};

}  // namespace corvane
