#pragma once

#include "Platform/Bundle.h"
#include "Platform/ProcessInfo.h"

#include <string>

namespace corvane {

/// Facts about this process and machine that do not change while it runs.
struct EmergencyUpdateServiceRuntimeEnvironment {
  std::string version;         // the agent's CFBundleVersion; empty when missing or no string
  std::string osVersion;       // always three numbers: "14.5.0"
  std::string devicePlatform;  // "arm64", "x86_64"; empty when the machine's name is not ASCII

  /// To be taken once per process.
  static EmergencyUpdateServiceRuntimeEnvironment current(const platform::Bundle& mainBundle,
                                                          const platform::ProcessInfo& processInfo);
};

}  // namespace corvane
