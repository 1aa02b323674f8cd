#include "Rehearsal/LogFollower.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/inotify.h>

namespace rehearsal {
namespace {

LogEntry parsedEntry(const std::string& line) {
  try {
    const auto entry = nlohmann::json::parse(line);
    return {.timestamp = entry.at("timestamp"),
            .messageType = entry.at("messageType"),
            .category = entry.at("category"),
            .message = entry.at("eventMessage"),
            .processIdentifier = entry.at("processID")};
  } catch (const nlohmann::json::exception&) {
    throw std::runtime_error("no entry of a system log: " + line);
  }
}

}  // namespace

LogFollower::LogFollower(std::filesystem::path log)
    : log_(std::move(log)), changes_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  inotify_add_watch(changes_.get(), log_.parent_path().c_str(), IN_CREATE | IN_MODIFY | IN_MOVED_TO);
}

std::optional<LogEntry> LogFollower::next(std::chrono::steady_clock::time_point deadline) {
  while (true) {
    if (const auto end = unread_.find('\n', position_); end != std::string::npos) {
      const std::string line = unread_.substr(position_, end - position_);
      position_ = end + 1;
      return parsedEntry(line);
    }
    unread_.erase(0, std::exchange(position_, 0));
    std::ifstream file(log_, std::ios::binary);
    file.seekg(offset_);
    const std::string more{std::istreambuf_iterator<char>(file), {}};
    offset_ += static_cast<std::streamoff>(more.size());
    unread_ += more;
    if (!more.empty()) continue;
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    waitForChange(deadline);
  }
}

void LogFollower::waitForChange(std::chrono::steady_clock::time_point deadline) const {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  pollfd change{.fd = changes_.get(), .events = POLLIN, .revents = 0};
  poll(&change, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
  std::array<char, 4096> events{};
  while (read(changes_.get(), events.data(), events.size()) > 0) {
  }
}

bool LogFollower::waitFor(const std::string& message, std::chrono::milliseconds limit,
                          const std::function<void(const LogEntry&)>& seen) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (const auto entry = next(deadline)) {
    if (seen) seen(*entry);
    if (entry->message == message) return true;
  }
  return false;
}

}  // namespace rehearsal
