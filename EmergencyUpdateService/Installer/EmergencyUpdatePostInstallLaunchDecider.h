#pragma once

#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/ServiceManagement.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string_view>
#include <variant>
#include <vector>

namespace corvane {

/// Decides whether the main application is started again after an install: when the install ended an instance of it, or
/// when it is set up to start at login. Writes no records; whatever launchd does not tell counts as not set up.
class EmergencyUpdatePostInstallLaunchDecider {
 public:
  /// A thin wrapper of the platform's query.
  class ServiceManagementLibary {
   public:
    explicit ServiceManagementLibary(const platform::ServiceManagement& serviceManagement)
        : serviceManagement_(serviceManagement) {}
    [[nodiscard]] std::optional<platform::PropertyList> copyAllJobDictionaries(platform::SMDomain domain) const {
      return serviceManagement_.copyAllJobDictionaries(domain);
    }

   private:
    const platform::ServiceManagement& serviceManagement_;
  };

  enum class Reason { appPreviouslyRunning, launchAtStartupEnabled };
  struct Perform {
    std::set<Reason> reasons;  // never empty
    bool operator==(const Perform&) const = default;
  };
  struct Skip {
    bool operator==(const Skip&) const = default;
  };
  using Decision = std::variant<Perform, Skip>;

  EmergencyUpdatePostInstallLaunchDecider(EmergencyUpdateServiceLogger logger,
                                          ServiceManagementLibary serviceManagementLibary)
      : logger_(logger), serviceManagementLibary_(serviceManagementLibary) {}

  /// Of the identifiers only the number counts.
  [[nodiscard]] Decision decide(const std::vector<std::int64_t>& terminatedProcessIdentifiers) const;

  /// The login helper's job is loaded and its "OnDemand" is the Boolean true.
  [[nodiscard]] bool isLaunchAtStartupEnabled() const;

 private:
  [[maybe_unused]] EmergencyUpdateServiceLogger logger_;
  ServiceManagementLibary serviceManagementLibary_;
};

/// "appPreviouslyRunning", "launchAtStartupEnabled".
std::string_view rawValue(EmergencyUpdatePostInstallLaunchDecider::Reason reason);

}  // namespace corvane
