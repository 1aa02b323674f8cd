#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace rehearsal {

/// Where a program's standard output goes: with this program's own, or nowhere, as launchd sends a job's.
enum class StandardOutput : std::uint8_t { shared, discarded };

/// A program running as a child process. Killed, if it still runs, when the object goes.
class ChildProgram {
 public:
  /// Starts it with just these environment variables ("NAME=value"), no signal ignored or blocked, and the other
  /// standard streams inherited. Throws std::runtime_error when it cannot be started.
  ChildProgram(const std::filesystem::path& executable, const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment, StandardOutput output = StandardOutput::shared);
  ChildProgram(ChildProgram&& other) noexcept
      : pid_(std::exchange(other.pid_, -1)), status_(std::exchange(other.status_, 0)) {}
  ChildProgram& operator=(ChildProgram&&) = delete;
  ~ChildProgram();

  [[nodiscard]] pid_t processIdentifier() const { return pid_; }
  void send(int signal) const;
  [[nodiscard]] bool isRunning();

  /// Waits for its end: the exit status, or 128 + the signal's number; absent when it still runs after `limit`.
  std::optional<int> wait(std::chrono::milliseconds limit);

 private:
  bool reap(bool block);

  pid_t pid_ = -1;
  std::optional<int> status_;
};

}  // namespace rehearsal
