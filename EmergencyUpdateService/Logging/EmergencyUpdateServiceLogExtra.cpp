#include "Logging/EmergencyUpdateServiceLogExtra.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

namespace corvane {

nlohmann::ordered_json encode(const std::vector<std::string>& texts) {
  return texts;
}

std::string description(const std::vector<std::string>& texts) {
  std::vector<std::string> quoted;
  quoted.reserve(texts.size());
  for (const std::string& text : texts) quoted.push_back("\"" + text + "\"");
  return fmt::format("[{}]", fmt::join(quoted, ", "));
}

nlohmann::ordered_json EmergencyUpdateServiceLogExtra::encoded() const {
  nlohmann::ordered_json json;
  if (value_ != nullptr) operations_->encodeInto(value_, json);
  return json;
}

std::optional<std::string> EmergencyUpdateServiceLogExtra::textualDescription() const {
  if (value_ == nullptr) return std::nullopt;
  return operations_->describe(value_);
}

}  // namespace corvane
