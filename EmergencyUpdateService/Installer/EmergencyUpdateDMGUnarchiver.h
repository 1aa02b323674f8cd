#pragma once

#include "CommandLine/CommandExecutor.h"
#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/FileManager.h"
#include "Platform/URL.h"

#include <memory>
#include <optional>
#include <string>

namespace corvane {

/// Turns a disk image into an application bundle on the local disk: attaches it at a private mount point, copies the
/// whole volume into the temporary directory, detaches it and picks the application out of the copy. Blocks on each
/// command. Not for two callers at once: clean-up refers to the latest unarchive().
class EmergencyUpdateDMGUnarchiver {
 public:
  EmergencyUpdateDMGUnarchiver(EmergencyUpdateServiceLogger logger, std::string hdiutilPath,
                               std::shared_ptr<CommandExecutor> commandExecutor, platform::FileManager& fileManager,
                               const platform::SearchPaths& searchPaths);

  /// The application in the copy; absent, after a record unless the volume just holds none, when there is no such. Of
  /// several applications at the volume's top level the first in the file system's order is taken.
  std::optional<platform::URL> unarchive(const platform::URL& dmgAt);

  /// Detaches the image if it is still attached, and removes the application that unarchive() returned. The rest of the
  /// copy is left to the temporary directory.
  void cleanup(const platform::URL& app);

 private:
  [[nodiscard]] CommandExecutionResult mount(const platform::URL& dmgAt) const;
  [[nodiscard]] CommandExecutionResult detach() const;
  [[nodiscard]] std::optional<platform::URL> moveFilesToTemporaryFolder() const;
  [[nodiscard]] std::optional<platform::URL> findAppLocation(const platform::URL& in) const;
  [[nodiscard]] std::string mountPoint() const { return "/Volumes/" + uuid_; }

  EmergencyUpdateServiceLogger logger_;
  std::string hdiutilPath_;
  std::shared_ptr<CommandExecutor> commandExecutor_;
  platform::FileManager& fileManager_;
  const platform::SearchPaths& searchPaths_;
  std::string uuid_;  // names the mount point and the copy of the latest unarchive()
};

}  // namespace corvane
