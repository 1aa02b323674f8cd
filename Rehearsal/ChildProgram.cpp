#include "Rehearsal/ChildProgram.h"

#include "Posix/ArgumentVector.h"
#include "Posix/FileDescriptor.h"
#include "Posix/Pidfd.h"

#include <csignal>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace rehearsal {
ChildProgram::ChildProgram(const std::filesystem::path& executable, const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment, StandardOutput output) {
  std::vector<std::string> words{executable.string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> variables = environment;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (output == StandardOutput::discarded) {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  const int error =
      posix_spawn(&pid_, executable.c_str(), &actions, nullptr, platform::posix::argumentVector(words).data(),
                  platform::posix::argumentVector(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + executable.string());
}

ChildProgram::~ChildProgram() {
  if (reap(false)) return;
  send(SIGKILL);
  reap(true);
}

void ChildProgram::send(int signal) const {
  kill(pid_, signal);
}

bool ChildProgram::isRunning() {
  return !reap(false);
}

std::optional<int> ChildProgram::wait(std::chrono::milliseconds limit) {
  if (!status_) {
    const platform::posix::FileDescriptor process(pidfd_open(pid_, 0));
    pollfd end{.fd = process.get(), .events = POLLIN, .revents = 0};
    poll(&end, 1, static_cast<int>(limit.count()));
    reap(false);
  }
  return status_;
}

bool ChildProgram::reap(bool block) {
  int status = 0;
  if (!status_ && waitpid(pid_, &status, block ? 0 : WNOHANG) == pid_) {
    status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  return status_.has_value();
}

}  // namespace rehearsal
