#include "Logging/EmergencyUpdateServiceNimbetLogEntry.h"

#include <algorithm>
#include <cmath>

namespace corvane {
namespace {

using Json = nlohmann::ordered_json;

/// Recursive; values come from this program and are flat.
bool hasOnlyFiniteNumbers(const Json& value) {
  if (value.is_number_float()) return std::isfinite(value.get<double>());
  return std::ranges::all_of(value,
                             [&value](const Json& part) { return &part == &value || hasOnlyFiniteNumbers(part); });
}

/// A solidus stands in strings only, and never behind the backslash of another escape.
std::string withEscapedSolidi(std::string_view json) {
  std::string text;
  text.reserve(json.size() + static_cast<std::size_t>(std::ranges::count(json, '/')));
  for (const char c : json) {
    if (c == '/') text += '\\';
    text += c;
  }
  return text;
}

}  // namespace

std::optional<std::string> EmergencyUpdateServiceNimbetLogEntry::encoded() const {
  if (extra != nullptr && !hasOnlyFiniteNumbers(*extra)) return std::nullopt;
  Json json = {{"file", file},
               {"line", line},
               {"function", function},
               {"application", application},
               {"env", rawValue(environment)},
               {"version", version},
               {"osVersion", osVersion},
               {"osArch", osArch},
               {"logger", logger},
               {"level", rawValue(level)}};
  if (agentID) json["agentID"] = *agentID;
  json["message"] = message;
  if (extra != nullptr) json["extra"] = *extra;
  return withEscapedSolidi(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace corvane
