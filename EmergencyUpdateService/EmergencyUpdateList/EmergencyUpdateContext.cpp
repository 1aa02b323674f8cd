#include "EmergencyUpdateList/EmergencyUpdateContext.h"

#include <nlohmann/json.hpp>

namespace corvane {

nlohmann::ordered_json encode(const EmergencyUpdateContext& context) {
  return {{"appBundleVersion", context.appBundleVersion},
          {"isApplicationRunning", context.isApplicationRunning},
          {"osVersion", context.osVersion},
          {"devicePlatform", context.devicePlatform}};
}

EmergencyUpdateContext EmergencyUpdateContextRetrieverImpl::retrieveContext() {
  return {.appBundleVersion = orvikAppStateProvider_->bundleVersion().value_or(""),
          .isApplicationRunning = !orvikAppStateProvider_->runningApplications().empty(),
          .osVersion = runtimeEnvironment_.osVersion,
          .devicePlatform = runtimeEnvironment_.devicePlatform};
}

}  // namespace corvane
