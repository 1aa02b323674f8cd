#include "Installer/EmergencyUpdateAppFileInstaller.h"

#include "Errors/AnyError.h"

namespace corvane {

bool EmergencyUpdateAppFileInstaller::isAbleToReplaceAppFiles() const {
  const auto url = appStateProvider_->installationURL();
  if (!url) {
    logger_.error({"Could not retrieve orvik application URL when checking if app files can be replaced"},
                  at("isAbleToReplaceAppFiles()"));
    return false;
  }
  return fileManager_.isWritableFile(url->path());
}

std::optional<platform::URL> EmergencyUpdateAppFileInstaller::replaceAppFiles(
    const platform::URL& withContentsFrom) const {
  const std::scoped_lock installation(*installationMutex_);
  auto destination = appStateProvider_->installationURL();
  if (!destination) {
    logger_.error({"Could not retrieve orvik application URL"}, at("replaceAppFiles(withContentsFrom:)"));
    return std::nullopt;
  }
  if (!removeAppFiles(*destination)) return std::nullopt;
  if (const auto copied = fileManager_.copyItem(withContentsFrom, *destination); !copied) {
    logger_.error({"Replacing app files failed: {}", sanitizedDescription(copied.error())},
                  at("replaceAppFiles(withContentsFrom:)"));
    return std::nullopt;
  }
  return destination;
}

/// False when the bundle is still there.
bool EmergencyUpdateAppFileInstaller::removeAppFiles(const platform::URL& destination) const {
  const auto removed = fileManager_.removeItem(destination);
  if (removed) return true;
  if (fileManager_.fileExists(destination.path())) {
    logger_.error({"Could not remove app files: {}", sanitizedDescription(removed.error())},
                  at("replaceAppFiles(withContentsFrom:)"));
    return false;
  }
  logger_.warn(
      {"Unusual state, continuing despite app file removal failure: {}", sanitizedDescription(removed.error())},
      at("replaceAppFiles(withContentsFrom:)"));
  return true;
}

}  // namespace corvane
