#pragma once

#include "Platform/Clock.h"
#include "Platform/UserDefaults.h"

#include <memory>
#include <optional>
#include <string>

namespace corvane {

/// Values in the agent's user defaults that replace built-in constants; the only run-time configuration there is.
class EmergencyUpdateServiceOverrides {
 public:
  /// `prefix` stands before every key.
  EmergencyUpdateServiceOverrides(std::shared_ptr<const platform::UserDefaults> storage, std::string prefix)
      : storage_(std::move(storage)), prefix_(std::move(prefix)) {}

  /// Under prefix + ".listCheckTimeIntervalSeconds"; absent unless a number (a Boolean is none) is stored there. Read
  /// on each use.
  [[nodiscard]] std::optional<platform::TimeInterval> listCheckTimeIntervalSeconds() const;

 private:
  std::shared_ptr<const platform::UserDefaults> storage_;
  std::string prefix_;
};

}  // namespace corvane
