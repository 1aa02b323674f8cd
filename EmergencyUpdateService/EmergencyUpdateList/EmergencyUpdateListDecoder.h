#pragma once

#include "EmergencyUpdateList/EmergencyUpdateList.h"

#include <optional>
#include <string_view>

namespace corvane {

/// The decoding behind EmergencyUpdateListParser, in one pass over the bytes: the list is built as its parts come by,
/// and what it has no use for is never stored.
std::optional<EmergencyUpdateList> decodeEmergencyUpdateList(std::string_view data);

}  // namespace corvane
