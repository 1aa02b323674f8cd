#include "EmergencyUpdateList/EmergencyUpdateActionsPerformer.h"

#include <nlohmann/json.hpp>

namespace corvane {

void EmergencyUpdateActionsPerformer::perform(const EmergencyUpdateList::Update::Action& action,
                                              const EmergencyUpdateContext& context) const {
  using Update = EmergencyUpdateList::Update;
  if (const auto* install = std::get_if<Update::Install>(&action)) {
    logger_.info({"Install action triggered"}, at("perform(_:context:)"), context);
    installer_->install(install->url, context.appBundleVersion);
  } else if (std::holds_alternative<Update::DryRun>(action)) {
    logger_.info({"Dry run action triggered"}, at("perform(_:context:)"), context);
  } else {
    logger_.error({"Unknown action triggered"}, at("perform(_:context:)"), context);
  }
}

}  // namespace corvane
