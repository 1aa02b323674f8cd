#pragma once

#include "Rehearsal/LogFollower.h"

#include <mutex>
#include <string>

namespace rehearsal {

/// What a rehearsal shows: one line an event, on standard output, as it happens. Any thread.
class Transcript {
 public:
  void heading(const std::string& text);
  /// A fact about the scene, "name: value".
  void fact(const std::string& name, const std::string& value);
  /// Something that happened outside the agent's own log.
  void event(const std::string& who, const std::string& text);
  /// A record of the agent's.
  void record(const LogEntry& entry);

 private:
  void line(const std::string& text);

  std::mutex mutex_;
};

}  // namespace rehearsal
