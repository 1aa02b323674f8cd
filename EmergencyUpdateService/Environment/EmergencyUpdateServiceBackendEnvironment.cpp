#include "Environment/EmergencyUpdateServiceBackendEnvironment.h"

#include "Extensions/URLExtensions.h"

namespace corvane {

const EmergencyUpdateServiceBackendEnvironment& EmergencyUpdateServiceBackendEnvironment::production() {
  static const EmergencyUpdateServiceBackendEnvironment environment{
      .origin = "https://" CORVANE_BACKEND_HOST,
      .application = "macExtension",
      .emergencyUpdateList = urlFromStaticString("https://" CORVANE_DOWNLOAD_HOST "/emergency_update_list.json"),
      .nimbet = urlFromStaticString("https://" CORVANE_LOG_HOST "/logv2")};
  return environment;
}

}  // namespace corvane
