#include "Environment/EmergencyUpdateServiceOverrides.h"

namespace corvane {

std::optional<platform::TimeInterval> EmergencyUpdateServiceOverrides::listCheckTimeIntervalSeconds() const {
  const auto value = storage_->object(prefix_ + ".listCheckTimeIntervalSeconds");
  return value ? value->number() : std::nullopt;
}

}  // namespace corvane
