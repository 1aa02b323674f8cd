#pragma once

#include "Platform/URL.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// One process of an application bundle, as it was when it was listed.
class RunningApplication {
 public:
  virtual ~RunningApplication() = default;

  /// Absent when the bundle that stands there now names none.
  [[nodiscard]] virtual const std::optional<std::string>& bundleIdentifier() const = 0;
  [[nodiscard]] virtual std::int32_t processIdentifier() const = 0;

  /// Asks the process to quit and returns at once; it may refuse or take its time. False when it is gone already.
  virtual bool terminate() = 0;
  /// The same without asking.
  virtual bool forceTerminate() = 0;
};

/// The shared workspace: which applications there are and which of them run. Every call looks afresh; any thread.
class Workspace {
 public:
  virtual ~Workspace() = default;

  /// Every registered application with this identifier (compared exactly), in the order of registration.
  [[nodiscard]] virtual std::vector<URL> urlsForApplications(std::string_view bundleIdentifier) const = 0;

  /// The first of them.
  [[nodiscard]] virtual std::optional<URL> urlForApplication(std::string_view bundleIdentifier) const = 0;

  /// This user's live application processes, by process identifier.
  [[nodiscard]] virtual std::vector<std::shared_ptr<RunningApplication>> runningApplications() const = 0;
};

}  // namespace platform
