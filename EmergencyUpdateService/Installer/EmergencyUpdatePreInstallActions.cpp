#include "Installer/EmergencyUpdatePreInstallActions.h"

namespace corvane {
namespace {

constexpr platform::OperatingSystemVersion firstWithGktool{.major = 14, .minor = 4, .patch = 0};
constexpr const char* gktoolPath = "/usr/bin/gktool";

}  // namespace

void EmergencyUpdatePreInstallActions::removeQuarantine(const platform::URL& appAt) const {
  commandExecutor_->execute(CaptureOutput::no, "/usr/bin/xattr", {"-d", "-r", "com.apple.quarantine", appAt.path()})
      .logIfFailed(logger_, "Remove quarantine");
}

void EmergencyUpdatePreInstallActions::touch(const platform::URL& appAt) const {
  commandExecutor_->execute(CaptureOutput::no, "/usr/bin/touch", {appAt.path()}).logIfFailed(logger_, "touch");
}

void EmergencyUpdatePreInstallActions::scanWithGatekeeper(const platform::URL& appAt) const {
  if (processInfo_.operatingSystemVersion() < firstWithGktool || !fileManager_.fileExists(gktoolPath)) return;
  commandExecutor_->execute(CaptureOutput::no, gktoolPath, {"scan", appAt.path()}).logIfFailed(logger_, "gktool scan");
}

}  // namespace corvane
