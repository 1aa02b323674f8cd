#include "Rehearsal/Transcript.h"

#include <fmt/format.h>

namespace rehearsal {

void Transcript::line(const std::string& text) {
  if (to_ == nullptr) return;
  const std::scoped_lock lock(mutex_);
  fmt::print(to_, "{}\n", text);
  std::fflush(to_);
}

void Transcript::heading(const std::string& text) {
  line("\n" + text);
}

void Transcript::fact(const std::string& name, const std::string& value) {
  line(fmt::format("  {:<12} {}", name, value));
}

void Transcript::event(const std::string& who, const std::string& text) {
  line(fmt::format("  {:<15} {:<8} {:<32} {}", "", "", "(" + who + ")", text));
}

void Transcript::record(const LogEntry& entry) {
  // The time of day, without date and offset, is enough here.
  line(fmt::format("  {:<15} {:<8} {:<32} {}", entry.timestamp.substr(11, 15), entry.messageType, entry.category,
                   entry.message));
}

}  // namespace rehearsal
