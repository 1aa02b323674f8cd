#pragma once

#include "Environment/EmergencyUpdateServiceRuntimeEnvironment.h"
#include "Environment/OrvikApp.h"
#include "Logging/EmergencyUpdateServiceLogger.h"

#include <memory>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace corvane {

/// The facts about this machine that list entries are matched against. Encodable: it is the extra value of the actions
/// performer's records. It has no textual description, so the system log does not show it.
struct EmergencyUpdateContext {
  std::string appBundleVersion;  // of the installed main application; empty when that cannot be told
  bool isApplicationRunning;
  std::string osVersion;       // three numbers
  std::string devicePlatform;  // the machine's hardware name; empty when unknown

  bool operator==(const EmergencyUpdateContext&) const = default;
};

/// The four fields under their names, in this order.
nlohmann::ordered_json encode(const EmergencyUpdateContext& context);

class EmergencyUpdateContextRetriever {
 public:
  virtual ~EmergencyUpdateContextRetriever() = default;

  /// Never fails. Any thread.
  virtual EmergencyUpdateContext retrieveContext() = 0;
};

/// Asks for version and running state afresh on every call.
class EmergencyUpdateContextRetrieverImpl final : public EmergencyUpdateContextRetriever {
 public:
  EmergencyUpdateContextRetrieverImpl(EmergencyUpdateServiceLogger logger,
                                      EmergencyUpdateServiceRuntimeEnvironment runtimeEnvironment,
                                      std::shared_ptr<const OrvikApp::StateProvider> orvikAppStateProvider)
      : logger_(logger),
        runtimeEnvironment_(std::move(runtimeEnvironment)),
        orvikAppStateProvider_(std::move(orvikAppStateProvider)) {}

  EmergencyUpdateContext retrieveContext() override;

 private:
  [[maybe_unused]] const EmergencyUpdateServiceLogger logger_;
  const EmergencyUpdateServiceRuntimeEnvironment runtimeEnvironment_;
  const std::shared_ptr<const OrvikApp::StateProvider> orvikAppStateProvider_;
};

}  // namespace corvane
