#pragma once

#include "Rehearsal/Scene.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <sys/types.h>

namespace campaign {

/// A system call that a supervised process is about to make; it waits while it is judged.
struct SystemCall {
  pid_t process = 0;  // the thread's process
  pid_t thread = 0;
  bool isOfProgram = false;  // as against what that has started
  int number = 0;            // SYS_…
  std::array<std::uint64_t, 6> arguments{};

  /// The bytes, at most `count`, that an argument points to.
  [[nodiscard]] std::string bytesAt(std::size_t argument, std::size_t count) const;
  /// The text up to a NUL byte that an argument points to.
  [[nodiscard]] std::string textAt(std::size_t argument) const;
  /// What a descriptor of the process refers to, as /proc says: a path, or "socket:[…]" and the like.
  [[nodiscard]] std::string describe(std::uint64_t descriptor) const;
};

/// A program, and whatever it starts, each of whose system calls is judged before it is made (seccomp's user
/// notification, so no other tracer is in the way). Throws std::runtime_error when it cannot be started.
class SupervisedProgram {
 public:
  /// Called on a thread of this object's. 0 lets the call be made; an error number is what it fails with instead.
  using Judge = std::function<int(SupervisedProgram&, const SystemCall&)>;

  SupervisedProgram(const rehearsal::Scene::Command& command, Judge judge);
  SupervisedProgram(const SupervisedProgram&) = delete;
  SupervisedProgram& operator=(const SupervisedProgram&) = delete;
  /// Kills whatever of it still runs.
  ~SupervisedProgram();

  [[nodiscard]] rehearsal::ChildProgram& program() { return *program_; }

  /// Kills the program and everything it started, from now on. Any thread, the judge's too.
  void killAll();

 private:
  void start(const rehearsal::Scene::Command& command);
  void supervise(const Judge& judge);
  [[nodiscard]] pid_t processOf(pid_t thread);
  /// A process identifier may have gone to another process by now; ours know the Mac.
  void killIfOurs(pid_t process) const;

  std::string mark_;  // a variable of the environment that is the Mac's own
  platform::posix::FileDescriptor listener_;
  std::optional<rehearsal::ChildProgram> program_;
  std::atomic<bool> isToEnd_ = false;
  std::mutex mutex_;
  std::map<pid_t, pid_t> processes_;  // by thread
  pid_t itself_ = 0;
  std::jthread supervisor_;
};

}  // namespace campaign
