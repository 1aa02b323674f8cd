#include "Rehearsal/Collector.h"

#include <nlohmann/json.hpp>

namespace rehearsal {

HTTPResponse Collector::receive(const HTTPRequest& request) {
  const auto record = nlohmann::ordered_json::parse(request.body, nullptr, false);
  if (request.method != "POST" || !record.is_object() || !record.contains("message")) return {.status = 400};
  const std::scoped_lock lock(mutex_);
  extras_.emplace(record["message"].get<std::string>(), record.contains("extra") ? record["extra"].dump() : "");
  received_.notify_all();
  return {.status = 200, .body = "{}"};
}

std::optional<std::string> Collector::extraOf(const std::string& message, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  if (!received_.wait_for(lock, limit, [&] { return extras_.contains(message); })) return std::nullopt;
  return extras_.find(message)->second;
}

std::size_t Collector::count() const {
  const std::scoped_lock lock(mutex_);
  return extras_.size();
}

}  // namespace rehearsal
