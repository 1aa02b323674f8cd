#include "Rehearsal/ChildProgram.h"

#include "Posix/ArgumentVector.h"
#include "Posix/FileDescriptor.h"
#include "Posix/Pidfd.h"
#include "Posix/SpawnOptions.h"

#include <cerrno>
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
  platform::posix::SpawnOptions options;
  if (output == StandardOutput::discarded) {
    posix_spawn_file_actions_addopen(&options.actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  const int error =
      posix_spawn(&pid_, executable.c_str(), &options.actions, &options.attributes,
                  platform::posix::argumentVector(words).data(), platform::posix::argumentVector(variables).data());
  if (error != 0) throw std::runtime_error("cannot start " + executable.string());
}

ChildProgram::~ChildProgram() {
  if (reap(false)) return;
  send(SIGKILL);
  reap(true);
}

void ChildProgram::send(int signal) const {
  // Once it has been reaped its identifier may be another's.
  if (!status_) kill(pid_, signal);
}

bool ChildProgram::isRunning() {
  return !reap(false);
}

std::optional<int> ChildProgram::wait(std::chrono::milliseconds limit) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + limit;
  const platform::posix::FileDescriptor process(pidfd_open(pid_, 0));
  pollfd end{.fd = process.get(), .events = POLLIN, .revents = 0};
  while (!reap(false) && steady_clock::now() < deadline) {
    // Comes back early when a signal is handled meanwhile.
    poll(&end, 1,
         static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count()));
  }
  return status_;
}

bool ChildProgram::reap(bool block) {
  if (status_) return true;
  int status = 0;
  pid_t ended = -1;
  do {
    ended = waitpid(pid_, &status, block ? 0 : WNOHANG);
  } while (ended < 0 && errno == EINTR);
  if (ended == pid_) status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return status_.has_value();
}

}  // namespace rehearsal
