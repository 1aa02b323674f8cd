#pragma once

#include "Rehearsal/HTTPSServer.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rehearsal {

/// Plays the remote log collector: keeps what was posted to it, and lets each record be taken once, so that the records
/// of the system log can be matched with those that came. Any thread.
class Collector {
 public:
  struct Record {
    std::string logger;
    std::string message;
    std::string extra;  // the extra value as JSON text; empty for a record without one
  };

  /// Keeps one posted record; 400 for a body that is none.
  HTTPResponse receive(const HTTPRequest& request);

  /// Takes the record of this logger with this message, waiting for it; absent when none is there by the deadline.
  std::optional<Record> take(std::string_view logger, std::string_view message,
                             std::chrono::steady_clock::time_point deadline);

  /// Whether a record with this message came, taken or not, within `limit`.
  bool waitFor(std::string_view message, std::chrono::milliseconds limit);

  struct Totals {
    std::size_t received = 0;
    std::size_t taken = 0;
  };
  [[nodiscard]] Totals totals() const;

 private:
  struct Kept {
    Record record;
    bool isTaken = false;
  };

  mutable std::mutex mutex_;
  std::condition_variable received_;
  std::vector<Kept> records_;
};

}  // namespace rehearsal
