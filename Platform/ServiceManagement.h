#pragma once

#include "Platform/PropertyList.h"

#include <optional>

namespace platform {

/// A domain of launchd's.
enum class SMDomain { userLaunchd };

/// What launchd has loaded. Any thread.
class ServiceManagement {
 public:
  virtual ~ServiceManagement() = default;

  /// The job dictionaries of the domain, as an array; absent when launchd does not answer.
  [[nodiscard]] virtual std::optional<PropertyList> copyAllJobDictionaries(SMDomain domain) const = 0;
};

}  // namespace platform
