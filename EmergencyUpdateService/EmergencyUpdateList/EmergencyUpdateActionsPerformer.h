#pragma once

#include "EmergencyUpdateList/EmergencyUpdateContext.h"
#include "EmergencyUpdateList/EmergencyUpdateInstaller.h"
#include "EmergencyUpdateList/EmergencyUpdateList.h"
#include "Logging/EmergencyUpdateServiceLogger.h"

#include <memory>

namespace corvane {

/// Carries out one action of a matching entry, after a record that carries the whole context. Never two at once: see
/// EmergencyUpdateInstaller.
class EmergencyUpdateActionsPerformer {
 public:
  EmergencyUpdateActionsPerformer(EmergencyUpdateServiceLogger logger,
                                  std::shared_ptr<EmergencyUpdateInstaller> installer)
      : logger_(logger), installer_(std::move(installer)) {}

  void perform(const EmergencyUpdateList::Update::Action& action, const EmergencyUpdateContext& context) const;

 private:
  EmergencyUpdateServiceLogger logger_;
  std::shared_ptr<EmergencyUpdateInstaller> installer_;
};

}  // namespace corvane
