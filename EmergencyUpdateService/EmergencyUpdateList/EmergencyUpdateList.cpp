#include "EmergencyUpdateList/EmergencyUpdateList.h"

#include "EmergencyUpdateList/EmergencyUpdateListDecoder.h"

namespace corvane {

std::string_view rawValue(EmergencyUpdateList::Update::DevicePlatform platform) {
  switch (platform) {
    case EmergencyUpdateList::Update::DevicePlatform::arm64:
      return "arm64";
    case EmergencyUpdateList::Update::DevicePlatform::x86_64:
      return "x86_64";
    case EmergencyUpdateList::Update::DevicePlatform::unknown:
      break;
  }
  return "unknown";
}

std::optional<EmergencyUpdateList> EmergencyUpdateListParser::parse(std::string_view data) const {
  auto list = decodeEmergencyUpdateList(data);
  if (!list) logger_.error({"Failed to parse emergency update list"}, at("parse(_:)"));
  return list;
}

}  // namespace corvane
