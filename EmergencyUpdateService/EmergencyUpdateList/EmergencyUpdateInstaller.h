#pragma once

#include "Platform/URL.h"

#include <string>

namespace corvane {

/// Installs the main application from a disk image.
class EmergencyUpdateInstaller {
 public:
  virtual ~EmergencyUpdateInstaller() = default;

  /// Returns when the installation has finished or stopped, minutes later perhaps; how it went is in the log alone.
  /// Must not be called again before it has returned. `initiallyInstalledBundleVersion` is the main application's
  /// bundle version before the install, empty when that could not be told.
  virtual void install(const platform::URL& from, const std::string& initiallyInstalledBundleVersion) = 0;
};

}  // namespace corvane
