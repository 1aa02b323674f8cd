#pragma once

#include "Platform/UserDefaults.h"

#include <memory>
#include <optional>
#include <string>

namespace corvane {

/// The random identifier of this agent, kept in its user defaults: the same for the same user and bundle identifier
/// until the entry is deleted.
class EmergencyUpdateServiceAgentIDProvider {
 public:
  EmergencyUpdateServiceAgentIDProvider(std::shared_ptr<platform::UserDefaults> storage, std::string agentIDKey)
      : storage_(std::move(storage)), agentIDKey_(std::move(agentIDKey)) {}

  /// Loads the identifier, or makes and stores a new one; asks the user defaults once. Never fails: an identifier that
  /// could not be stored is used all the same.
  const std::string& agentID();

 private:
  std::shared_ptr<platform::UserDefaults> storage_;
  std::string agentIDKey_;
  std::optional<std::string> agentID_;
};

}  // namespace corvane
