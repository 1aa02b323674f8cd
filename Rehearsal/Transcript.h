#pragma once

#include "Rehearsal/LogFollower.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace rehearsal {

/// What a rehearsal shows: one line an event, as it happens. Any thread.
class Transcript {
 public:
  /// Shown on a stream that outlives this; null shows nothing.
  explicit Transcript(std::FILE* to = stdout) : to_(to) {}

  void heading(const std::string& text);
  /// A fact about the scene, "name: value".
  void fact(const std::string& name, const std::string& value);
  /// Something that happened outside the agent's own log.
  void event(const std::string& who, const std::string& text);
  /// A record of the agent's.
  void record(const LogEntry& entry);

 private:
  void line(const std::string& text);

  std::FILE* to_;
  std::mutex mutex_;
};

}  // namespace rehearsal
