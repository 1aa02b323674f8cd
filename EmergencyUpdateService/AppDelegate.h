#pragma once

#include "EmergencyUpdateService.h"
#include "Platform/Application.h"

namespace corvane {

/// Passes the application's two moments on to the service, which it owns.
class AppDelegate final : public platform::ApplicationDelegate {
 public:
  explicit AppDelegate(const platform::Facilities& platform) : emergencyUpdateService_(platform) {}

  void applicationDidFinishLaunching() override { emergencyUpdateService_.launch(); }
  void applicationWillTerminate() override { emergencyUpdateService_.terminate(); }
  [[nodiscard]] bool applicationSupportsSecureRestorableState() const override { return true; }

 private:
  EmergencyUpdateService emergencyUpdateService_;
};

}  // namespace corvane
