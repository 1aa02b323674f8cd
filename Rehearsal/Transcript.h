#pragma once

#include "Rehearsal/Collector.h"
#include "Rehearsal/LogFollower.h"

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace rehearsal {

/// What a rehearsal shows: one line an event, in the order in which the events were told. A record is shown with a mark
/// that says whether the log collector received it; a thread of the transcript's own waits for that, so that the
/// rehearsal does not. Any thread.
class Transcript {
 public:
  /// Shown on a stream that outlives this; null shows nothing.
  explicit Transcript(std::FILE* to = stdout) : to_(to) {}
  Transcript(const Transcript&) = delete;
  Transcript& operator=(const Transcript&) = delete;
  ~Transcript();

  void heading(const std::string& text);
  /// A fact about the scene, "name: value".
  void fact(const std::string& name, const std::string& value);
  /// Something that happened outside the agent's own log.
  void event(const std::string& who, const std::string& text);
  /// The names of the columns of what follows.
  void columns();
  /// A record of the agent's, and the collector that it may come to; that must live until the line is shown.
  void record(const LogEntry& entry, Collector* collector);

  /// Waits until everything told so far has been shown.
  void settle();

 private:
  using Line = std::function<std::string()>;
  void tell(Line line);
  void show(const std::stop_token& stop);

  std::FILE* to_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<Line> lines_;  // the first may be being shown
  std::jthread printer_{[this](const std::stop_token& stop) { show(stop); }};
};

}  // namespace rehearsal
