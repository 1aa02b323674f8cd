#pragma once

#include "EmergencyUpdateList/EmergencyUpdateInstaller.h"
#include "Logging/EmergencyUpdateServiceLogger.h"

namespace corvane {

/// Stands where the install pipeline will: writes one `error` record that says so, and changes nothing.
class EmergencyUpdateUnavailableInstaller final : public EmergencyUpdateInstaller {
 public:
  explicit EmergencyUpdateUnavailableInstaller(EmergencyUpdateServiceLogger logger) : logger_(logger) {}

  void install(const platform::URL& from, const std::string& initiallyInstalledBundleVersion) override;

 private:
  EmergencyUpdateServiceLogger logger_;
};

}  // namespace corvane
