#include "EmergencyUpdateList/EmergencyUpdateListDecoder.h"
#include "EmergencyUpdateList/EmergencyUpdateListValidator.h"

#include <cstdint>
#include <string_view>

/// The list as it comes from the network, parsed and matched. Whatever comes out must keep what the validator promises.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace corvane;
  const auto list = decodeEmergencyUpdateList({reinterpret_cast<const char*>(data), size});
  if (!list) return 0;
  const EmergencyUpdateContext context{
      .appBundleVersion = "1.80.1", .isApplicationRunning = true, .osVersion = "14.2.0", .devicePlatform = "arm64"};
  const auto outcome = EmergencyUpdateListValidator().validate(*list, context);
  if (!outcome) return 0;
  if (std::holds_alternative<EmergencyUpdateListValidator::NoUpdates>(*outcome) != list->updates.empty())
    __builtin_trap();
  if (const auto* matched = std::get_if<EmergencyUpdateListValidator::Matched>(&*outcome)) {
    if (matched->actions.size() != 1) __builtin_trap();
    if (std::holds_alternative<EmergencyUpdateList::Update::Unknown>(matched->actions[0])) __builtin_trap();
  }
  return 0;
}
