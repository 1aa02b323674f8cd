#include "Installer/EmergencyUpdatePostInstallLaunchDecider.h"

namespace corvane {
namespace {

constexpr std::string_view loginHelperLabel = "com.corvane.ProjectOrvik.LoginHelper";

bool isLoginHelper(const platform::PropertyList& job) {
  const platform::PropertyList* label = job["Label"];
  return label != nullptr && label->string() != nullptr && *label->string() == loginHelperLabel;
}

}  // namespace

EmergencyUpdatePostInstallLaunchDecider::Decision EmergencyUpdatePostInstallLaunchDecider::decide(
    const std::vector<std::int64_t>& terminatedProcessIdentifiers) const {
  std::set<Reason> reasons;
  if (!terminatedProcessIdentifiers.empty()) reasons.insert(Reason::appPreviouslyRunning);
  if (isLaunchAtStartupEnabled()) reasons.insert(Reason::launchAtStartupEnabled);
  if (reasons.empty()) return Skip{};
  return Perform{.reasons = std::move(reasons)};
}

bool EmergencyUpdatePostInstallLaunchDecider::isLaunchAtStartupEnabled() const {
  const auto jobs = serviceManagementLibary_.copyAllJobDictionaries(platform::SMDomain::userLaunchd);
  const auto* list = jobs ? jobs->as<platform::PropertyList::Array>() : nullptr;
  if (list == nullptr) return false;
  // An array of anything but dictionaries is no answer at all.
  for (const platform::PropertyList& job : *list) {
    if (job.dictionary() == nullptr) return false;
  }
  for (const platform::PropertyList& job : *list) {
    if (!isLoginHelper(job)) continue;
    const platform::PropertyList* flag = job["OnDemand"];
    const bool* onDemand = flag == nullptr ? nullptr : flag->as<bool>();
    return onDemand != nullptr && *onDemand;
  }
  return false;
}

std::string_view rawValue(EmergencyUpdatePostInstallLaunchDecider::Reason reason) {
  switch (reason) {
    case EmergencyUpdatePostInstallLaunchDecider::Reason::appPreviouslyRunning:
      return "appPreviouslyRunning";
    case EmergencyUpdatePostInstallLaunchDecider::Reason::launchAtStartupEnabled:
      break;
  }
  return "launchAtStartupEnabled";
}

}  // namespace corvane
