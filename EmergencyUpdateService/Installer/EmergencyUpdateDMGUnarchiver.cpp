#include "Installer/EmergencyUpdateDMGUnarchiver.h"

#include "Errors/AnyError.h"
#include "Platform/UUID.h"

#include <algorithm>

namespace corvane {
namespace {

bool isApplication(const platform::URL& url) {
  std::string extension = url.pathExtension();
  std::ranges::transform(extension, extension.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; });
  return extension == "app";
}

}  // namespace

EmergencyUpdateDMGUnarchiver::EmergencyUpdateDMGUnarchiver(EmergencyUpdateServiceLogger logger, std::string hdiutilPath,
                                                           std::shared_ptr<CommandExecutor> commandExecutor,
                                                           platform::FileManager& fileManager,
                                                           const platform::SearchPaths& searchPaths)
    : logger_(logger),
      hdiutilPath_(std::move(hdiutilPath)),
      commandExecutor_(std::move(commandExecutor)),
      fileManager_(fileManager),
      searchPaths_(searchPaths),
      uuid_(platform::makeUUID()) {}

std::optional<platform::URL> EmergencyUpdateDMGUnarchiver::unarchive(const platform::URL& dmgAt) {
  uuid_ = platform::makeUUID();
  const CommandExecutionResult mounted = mount(dmgAt);
  if (mounted.status != 0) {
    logger_.error({"Unarchive failed, couldn't mount DMG, command status: {}", mounted.status},
                  at("unarchive(dmgAt:)"));
    return std::nullopt;
  }
  const auto copy = moveFilesToTemporaryFolder();
  const CommandExecutionResult detached = detach();
  if (!copy) return std::nullopt;
  detached.logIfFailed(logger_, "Detach");
  return findAppLocation(*copy);
}

CommandExecutionResult EmergencyUpdateDMGUnarchiver::mount(const platform::URL& dmgAt) const {
  return commandExecutor_->execute(
      CaptureOutput::no, hdiutilPath_,
      {"attach", dmgAt.path(), "-mountpoint", mountPoint(), "-noverify", "-nobrowse", "-noautoopen"});
}

CommandExecutionResult EmergencyUpdateDMGUnarchiver::detach() const {
  return commandExecutor_->execute(CaptureOutput::no, hdiutilPath_, {"detach", mountPoint(), "-force"});
}

std::optional<platform::URL> EmergencyUpdateDMGUnarchiver::moveFilesToTemporaryFolder() const {
  platform::URL destination =
      searchPaths_.temporaryDirectory().appendingPathComponent(uuid_, platform::URL::PathKind::directory);
  const platform::URL source = platform::URL::fileURL(mountPoint(), platform::URL::PathKind::directory);
  if (const auto copied = fileManager_.copyItem(source, destination); !copied) {
    logger_.error({"Unarchive failed, couldn't copy to temporary folder: {}", sanitizedDescription(copied.error())},
                  at("moveFilesToTemporaryFolder()"));
    return std::nullopt;
  }
  return destination;
}

std::optional<platform::URL> EmergencyUpdateDMGUnarchiver::findAppLocation(const platform::URL& in) const {
  const auto entries = fileManager_.contentsOfDirectory(in);
  if (!entries) {
    logger_.error({"Unarchive failed, couldn't get contentsOfDirectory for retrieving app name: {}",
                   sanitizedDescription(entries.error())},
                  at("findAppLocation(in:)"));
    return std::nullopt;
  }
  const auto app = std::ranges::find_if(*entries, isApplication);
  if (app == entries->end()) return std::nullopt;
  return platform::URL::fileURL(fileManager_.resolvedAndStandardized(app->path()), platform::URL::PathKind::directory);
}

void EmergencyUpdateDMGUnarchiver::cleanup(const platform::URL& app) {
  if (fileManager_.fileExists(mountPoint())) static_cast<void>(detach());
  if (const auto removed = fileManager_.removeItem(app); !removed) {
    logger_.error({"Cleanup failed removing itmes {}", sanitizedDescription(removed.error())}, at("cleanup(_:)"));
  }
}

}  // namespace corvane
