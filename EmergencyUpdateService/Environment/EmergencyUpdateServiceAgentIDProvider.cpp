#include "Environment/EmergencyUpdateServiceAgentIDProvider.h"

#include "Platform/UUID.h"

namespace corvane {

const std::string& EmergencyUpdateServiceAgentIDProvider::agentID() {
  if (agentID_) return *agentID_;
  const auto stored = storage_->object(agentIDKey_);
  if (stored && stored->string() != nullptr) {
    agentID_ = *stored->string();
  } else {
    agentID_ = platform::makeUUID();
    storage_->set(*agentID_, agentIDKey_);
  }
  return *agentID_;
}

}  // namespace corvane
