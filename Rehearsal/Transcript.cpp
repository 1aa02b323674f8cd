#include "Rehearsal/Transcript.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include <fmt/format.h>

namespace rehearsal {
namespace {

/// How long after a record was written the collector may take to have it before it is shown as not received. On
/// loopback it takes milliseconds; the first one has to wait for the connection.
constexpr auto grace = std::chrono::milliseconds(700);

std::string row(std::string_view time, std::string_view type, std::string_view mark, std::string_view who,
                std::string_view text) {
  return fmt::format("  {:<15} {:<8} {:<9} {:<32} {}", time, type, mark, who, text);
}

std::string recordLine(const LogEntry& entry, Collector* collector, std::chrono::steady_clock::time_point told) {
  const auto received =
      collector == nullptr ? std::nullopt : collector->take(entry.category, entry.message, told + grace);
  // The time of day, without date and offset, is enough here.
  std::string line = row(entry.timestamp.substr(11, 15), entry.messageType, received ? "received" : "-", entry.category,
                         entry.message);
  if (received && !received->extra.empty()) {
    line += "\n" + row("", "", "", "", received->extra);
  }
  return line;
}

}  // namespace

Transcript::~Transcript() {
  settle();
}

void Transcript::heading(const std::string& text) {
  tell([text] { return "\n" + text; });
}

void Transcript::fact(const std::string& name, const std::string& value) {
  tell([=] { return fmt::format("  {:<12} {}", name, value); });
}

void Transcript::columns() {
  tell([] { return row("time", "type", "collector", "category", "message"); });
}

void Transcript::event(const std::string& who, const std::string& text) {
  tell([=] { return row("", "", "", "(" + who + ")", text); });
}

void Transcript::record(const LogEntry& entry, Collector* collector) {
  tell([=, told = std::chrono::steady_clock::now()] { return recordLine(entry, collector, told); });
}

void Transcript::tell(Line line) {
  const std::scoped_lock lock(mutex_);
  lines_.push_back(std::move(line));
  changed_.notify_all();
}

void Transcript::show(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  while (changed_.wait(lock, stop, [this] { return !lines_.empty(); })) {
    const Line line = lines_.front();
    lock.unlock();
    if (to_ != nullptr) {
      fmt::print(to_, "{}\n", line());
      std::fflush(to_);
    }
    lock.lock();
    lines_.pop_front();
    changed_.notify_all();
  }
}

void Transcript::settle() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return lines_.empty(); });
}

}  // namespace rehearsal
