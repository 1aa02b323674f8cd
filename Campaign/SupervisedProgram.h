#pragma once

#include "Rehearsal/Scene.h"
#include "Rehearsal/SystemCalls.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <sys/types.h>

namespace campaign {

/// A program, and whatever it starts, with all their system calls judged. Throws std::runtime_error when it cannot be
/// started.
class SupervisedProgram {
 public:
  /// As a rehearsal::SystemCallJudge; told too whether the program itself makes the call, as against what it has
  /// started.
  using Judge = std::function<int(SupervisedProgram&, const rehearsal::SystemCall&, bool isOfProgram)>;

  SupervisedProgram(const rehearsal::Scene::Command& command, Judge judge);
  SupervisedProgram(const SupervisedProgram&) = delete;
  SupervisedProgram& operator=(const SupervisedProgram&) = delete;
  /// Kills whatever of it still runs.
  ~SupervisedProgram();

  [[nodiscard]] rehearsal::ChildProgram& program() { return *program_; }

  /// Kills the program, or it and everything it started, from now on. Any thread, the judge's too.
  void killProgram();
  void killAll();

 private:
  void start(const rehearsal::Scene::Command& command);
  [[nodiscard]] int judge(const rehearsal::SystemCall& call);
  [[nodiscard]] pid_t processOf(pid_t thread);
  /// A process identifier may have gone to another process by now; ours know the Mac.
  void killIfOurs(pid_t process) const;

  std::string mark_;  // a variable of the environment that is the Mac's own
  Judge judge_;
  platform::posix::FileDescriptor listener_;
  std::optional<rehearsal::ChildProgram> program_;
  std::string failure_;  // to start it
  std::atomic<bool> isToEnd_ = false;
  std::mutex mutex_;
  std::map<pid_t, pid_t> processes_;  // by thread
  pid_t itself_ = 0;
  std::jthread supervisor_;
};

/// A record that is about to be written to the system log, its message up to the first variable of it.
struct WrittenRecord {
  std::string message;
  std::string category;
};
/// Absent for a call that writes something else.
std::optional<WrittenRecord> recordWritten(const rehearsal::SystemCall& call);

/// The first record of an install, and the one from which on the old application may be gone.
inline constexpr const char* beginsInstall = "Checking ability to replace app files";
inline constexpr const char* replaces = "Replacing app files at final destination";
inline constexpr std::chrono::seconds installLimit{60};

}  // namespace campaign
