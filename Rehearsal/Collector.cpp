#include "Rehearsal/Collector.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace rehearsal {

HTTPResponse Collector::receive(const HTTPRequest& request) {
  const auto posted = nlohmann::ordered_json::parse(request.body, nullptr, false);
  const auto isText = [&](const char* key) { return posted.contains(key) && posted[key].is_string(); };
  if (request.method != "POST" || !isText("logger") || !isText("message")) return {.status = 400};
  const std::scoped_lock lock(mutex_);
  records_.push_back({.record = {.logger = posted["logger"],
                                 .message = posted["message"],
                                 .extra = posted.contains("extra") ? posted["extra"].dump() : ""}});
  received_.notify_all();
  return {.status = 200, .body = "{}"};
}

std::optional<Collector::Record> Collector::take(std::string_view logger, std::string_view message,
                                                 std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  auto found = records_.end();
  received_.wait_until(lock, deadline, [&] {
    found = std::ranges::find_if(records_, [&](const Kept& kept) {
      return !kept.isTaken && kept.record.logger == logger && kept.record.message == message;
    });
    return found != records_.end();
  });
  if (found == records_.end()) return std::nullopt;
  found->isTaken = true;
  return found->record;
}

bool Collector::waitFor(std::string_view message, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return received_.wait_for(lock, limit, [&] {
    return std::ranges::any_of(records_, [&](const Kept& kept) { return kept.record.message == message; });
  });
}

Collector::Totals Collector::totals() const {
  const std::scoped_lock lock(mutex_);
  return {.received = records_.size(),
          .taken = static_cast<std::size_t>(std::ranges::count_if(records_, &Kept::isTaken))};
}

}  // namespace rehearsal
