#pragma once

#include "Rehearsal/HTTPSServer.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace rehearsal {

/// Plays the remote log collector: keeps what was posted to it. Any thread.
class Collector {
 public:
  /// Takes one posted record; 400 for a body that is none.
  HTTPResponse receive(const HTTPRequest& request);

  /// The extra value, as JSON text, of the first record with this message, once that has come; empty for a record
  /// without one, absent when no such record came within `limit`.
  std::optional<std::string> extraOf(const std::string& message, std::chrono::milliseconds limit);

  [[nodiscard]] std::size_t count() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable received_;
  std::multimap<std::string, std::string> extras_;  // by message
};

}  // namespace rehearsal
