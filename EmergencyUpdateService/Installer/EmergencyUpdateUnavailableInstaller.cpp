#include "Installer/EmergencyUpdateUnavailableInstaller.h"

namespace corvane {

void EmergencyUpdateUnavailableInstaller::install(const platform::URL& /*from*/,
                                                  const std::string& /*initiallyInstalledBundleVersion*/) {
  logger_.error({"Installer stopped, this build has no install pipeline"},
                at("install(from:initiallyInstalledBundleVersion:)"));
}

}  // namespace corvane
