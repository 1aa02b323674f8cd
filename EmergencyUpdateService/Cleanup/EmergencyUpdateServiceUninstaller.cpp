#include "Cleanup/EmergencyUpdateServiceUninstaller.h"

#include "Errors/AnyError.h"

#include <cstdlib>

namespace corvane {
namespace {

/// What launchctl exits with when the job is not loaded.
constexpr std::int64_t noSuchJob = 3;

}  // namespace

void EmergencyUpdateServiceUninstaller::uninstall() const {
  remove(agentEnvironment_.configPlistURL, "configuration plist");
  remove(agentEnvironment_.installationURL, "bundle installation");
  bootOut();
  terminateOwnProcess();
}

void EmergencyUpdateServiceUninstaller::remove(const std::optional<platform::URL>& location,
                                               std::string_view tag) const {
  if (!location) {
    logger_.error({"Could not remove {} because URL is nil", tag}, at("remove(_:tag:)"));
    return;
  }
  logger_.debug({"Removing {}", tag}, at("remove(_:tag:)"));
  const auto removed = fileManager_.removeItem(*location);
  if (removed) return;
  if (removed.error().code() == platform::NSFileNoSuchFileError) {
    logger_.info({"Could not remove {} because it already didn't exist", tag}, at("remove(_:tag:)"));
  } else {
    logger_.error({"Could not remove {}, error: {}", tag, sanitizedDescription(removed.error())}, at("remove(_:tag:)"));
  }
}

void EmergencyUpdateServiceUninstaller::bootOut() const {
  logger_.debug({"Booting out"}, at("bootOut()"));
  const std::string script =
      "USERID=$( id -u )\nlaunchctl bootout gui/${USERID}/\"" + agentEnvironment_.bundleIdentifier + "\"";
  const auto result = commandExecutor_->execute(CaptureOutput::yes, "/bin/bash", {"-c", "(\n    " + script + "\n)"});
  if (result.status == 0 || result.status == noSuchJob) return;
  logger_.error({"Bootout process finished with error status: {}", result.status}, at("bootOut()"));
  logger_.debug({"Bootout process failure standard output: {}", result.output.value_or("no standard output")},
                at("bootOut()"));
  logger_.debug({"Bootout process failure standard error: {}", result.errorOutput.value_or("no standard error")},
                at("bootOut()"));
}

void EmergencyUpdateServiceUninstaller::terminateOwnProcess() const {
  logger_.debug({"Stopping own proces"}, at("terminateOwnProcess()"));
  processExit_.exitImmediately(EXIT_SUCCESS);
}

}  // namespace corvane
