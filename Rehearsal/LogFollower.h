#pragma once

#include "Posix/FileDescriptor.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace rehearsal {

/// One entry of a stand-in Mac's system log.
struct LogEntry {
  std::string timestamp;
  std::string messageType;
  std::string category;
  std::string message;
  int processIdentifier = 0;
};

/// Reads a system log from its beginning, entry by entry, waiting for those that have not been written yet. The log's
/// folder must exist.
class LogFollower {
 public:
  explicit LogFollower(std::filesystem::path log);

  /// The next entry; absent when none has come by the deadline. Throws std::runtime_error on a line that is no entry.
  std::optional<LogEntry> next(std::chrono::steady_clock::time_point deadline);

  /// Passes entries by until one has this message, handing each, that one included, to `seen`. False when it has not
  /// come within `limit`.
  bool waitFor(const std::string& message, std::chrono::milliseconds limit,
               const std::function<void(const LogEntry&)>& seen = {});

 private:
  void waitForChange(std::chrono::steady_clock::time_point deadline) const;

  std::filesystem::path log_;
  platform::posix::FileDescriptor changes_;
  std::string unread_;  // from position_ on
  std::size_t position_ = 0;
  std::streamoff offset_ = 0;
};

}  // namespace rehearsal
