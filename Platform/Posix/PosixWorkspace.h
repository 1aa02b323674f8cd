#pragma once

#include "Platform/Workspace.h"
#include "Posix/Machine.h"

namespace platform::posix {

/// Registered applications are the bundles that lie in the applications directories, on the Desktop and in Downloads;
/// running ones are found in /proc. There is no database of either.
class PosixWorkspace final : public Workspace {
 public:
  explicit PosixWorkspace(Machine machine);

  [[nodiscard]] std::vector<URL> urlsForApplications(std::string_view bundleIdentifier) const override;
  [[nodiscard]] std::optional<URL> urlForApplication(std::string_view bundleIdentifier) const override;
  [[nodiscard]] std::vector<std::shared_ptr<RunningApplication>> runningApplications() const override;

 private:
  [[nodiscard]] std::vector<std::string> registeredBundles() const;

  Machine machine_;
  std::string resolvedHome_;  // as /proc shows it
};

}  // namespace platform::posix
