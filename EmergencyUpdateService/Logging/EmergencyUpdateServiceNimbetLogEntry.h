#pragma once

#include "Logging/EmergencyUpdateServiceLogSender.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace corvane {

/// The JSON object that the collector gets for one record: its keys are the members' names, `environment`'s is "env".
/// Absent members are left out. Only refers to its texts.
struct EmergencyUpdateServiceNimbetLogEntry {
  std::string_view file;
  std::uint32_t line;
  std::string_view function;
  std::string_view application;
  LogEnvironment environment;
  std::string_view version;
  std::string_view osVersion;
  std::string_view osArch;
  std::string_view logger;
  LogLevel level;
  std::optional<std::string_view> agentID;
  std::string_view message;
  const nlohmann::ordered_json* extra;  // null: none

  /// The keys in the order above, compact, "/" as "\/" and what is not UTF-8 as U+FFFD, as the platform's encoder
  /// writes it. Absent when the extra value holds a number that is not finite, for which there is no JSON.
  [[nodiscard]] std::optional<std::string> encoded() const;
};

}  // namespace corvane
