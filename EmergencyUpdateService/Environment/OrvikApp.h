#pragma once

#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/FileManager.h"
#include "Platform/ProcessInfo.h"
#include "Platform/Workspace.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// The main application, which the agent exists to keep repairable.
namespace corvane::OrvikApp {

inline constexpr std::string_view bundleIdentifier = "com.corvane.ProjectOrvik";

/// Held while the installed copy is being replaced, and while it is looked for and its absence acted upon.
using InstallationMutex = std::mutex;

/// Where the main application is installed, in which version, and whether it runs. Every call looks afresh; any thread.
class StateProvider {
 public:
  virtual ~StateProvider() = default;

  /// The installed copy that lies in an applications directory, by path prefix after links are resolved; of several the
  /// one registered first.
  [[nodiscard]] virtual std::optional<platform::URL> installationURL() const = 0;

  /// The installed copy's CFBundleVersion as stored. Absent, after an `error` record that says why, when there is none.
  [[nodiscard]] virtual std::optional<std::string> bundleVersion() const = 0;

  /// Every running process of the main application; it counts as running when there is one.
  [[nodiscard]] virtual std::vector<std::shared_ptr<platform::RunningApplication>> runningApplications() const = 0;

  /// Whether there is an installation URL and something lies at its path.
  [[nodiscard]] virtual bool isInstalled() const = 0;
};

class StateProviderImpl final : public StateProvider {
 public:
  StateProviderImpl(EmergencyUpdateServiceLogger logger, const platform::FileManager& fileManager,
                    const platform::Workspace& nsWorkspace, const platform::SearchPaths& searchPaths,
                    const platform::ProcessInfo& processInfo)
      : logger_(logger),
        fileManager_(fileManager),
        nsWorkspace_(nsWorkspace),
        searchPaths_(searchPaths),
        processInfo_(processInfo) {}

  [[nodiscard]] std::optional<platform::URL> installationURL() const override;
  [[nodiscard]] std::optional<std::string> bundleVersion() const override;
  [[nodiscard]] std::vector<std::shared_ptr<platform::RunningApplication>> runningApplications() const override;
  [[nodiscard]] bool isInstalled() const override;

 private:
  [[nodiscard]] std::vector<platform::URL> candidates() const;
  [[nodiscard]] bool isInApplicationsDirectory(const platform::URL& candidate) const;

  EmergencyUpdateServiceLogger logger_;
  const platform::FileManager& fileManager_;
  const platform::Workspace& nsWorkspace_;
  const platform::SearchPaths& searchPaths_;
  const platform::ProcessInfo& processInfo_;
};

}  // namespace corvane::OrvikApp
