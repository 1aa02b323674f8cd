#include "Posix/PosixChildProcess.h"

#include "Posix/ArgumentVector.h"
#include "Posix/Pidfd.h"
#include "Posix/SpawnOptions.h"

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

namespace platform::posix {
namespace {

struct Pipe {
  FileDescriptor readingEnd;
  FileDescriptor writingEnd;

  static Pipe make() {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return {.readingEnd = FileDescriptor(ends[0]), .writingEnd = FileDescriptor(ends[1])};
  }
};

/// Reads some of what there is to read without waiting; -1 when there is nothing now, 0 when there never will be.
ssize_t readSome(const FileDescriptor& pipe, std::string& output) {
  std::array<char, 65536> chunk{};
  ssize_t count = 0;
  do {
    count = read(pipe.get(), chunk.data(), chunk.size());
  } while (count < 0 && errno == EINTR);
  if (count > 0) output.append(chunk.data(), static_cast<std::size_t>(count));
  return count < 0 && errno != EAGAIN ? 0 : count;
}

/// What the child left in the pipe: at most as much as a pipe holds, whoever else goes on writing.
void readRest(const FileDescriptor& pipe, std::string& output) {
  ssize_t left = fcntl(pipe.get(), F_GETPIPE_SZ);
  while (left > 0) {
    const ssize_t count = readSome(pipe, output);
    if (count <= 0) return;
    left -= count;
  }
}

/// Collects both pipes until the child has exited, and then what it left in them. Where the child cannot be waited for
/// beside them, until nobody holds them any more.
void collect(pid_t child, Pipe& out, Pipe& err, std::string& output, std::string& errorOutput) {
  const FileDescriptor process(pidfd_open(child, 0));
  std::array<pollfd, 3> waits{
      {{out.readingEnd.get(), POLLIN, 0}, {err.readingEnd.get(), POLLIN, 0}, {process.get(), POLLIN, 0}}};
  while ((waits[2].revents & POLLIN) == 0 && (process || waits[0].fd >= 0 || waits[1].fd >= 0)) {
    if (poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR) break;
    if (waits[0].revents != 0 && readSome(out.readingEnd, output) == 0) waits[0].fd = -1;
    if (waits[1].revents != 0 && readSome(err.readingEnd, errorOutput) == 0) waits[1].fd = -1;
  }
  readRest(out.readingEnd, output);
  readRest(err.readingEnd, errorOutput);
}

ChildProcessResult reaped(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return {};
  }
  ChildProcessResult result;
  if (WIFSIGNALED(status)) {
    result.reason = ChildProcessResult::Reason::uncaughtSignal;
    result.status = WTERMSIG(status);
  } else {
    result.reason = ChildProcessResult::Reason::exit;
    result.status = WEXITSTATUS(status);
  }
  return result;
}

std::optional<std::string> unlessEmpty(std::string text) {
  if (text.empty()) return std::nullopt;
  return text;
}

}  // namespace

ChildProcessResult PosixChildProcessLauncher::run(const std::string& launchPath,
                                                  const std::vector<std::string>& arguments, Capture capture) {
  const bool captures = capture == Capture::yes;
  Pipe out;
  Pipe err;
  SpawnOptions options(POSIX_SPAWN_SETPGROUP);
  if (captures) {
    out = Pipe::make();
    err = Pipe::make();
    if (!out.readingEnd || !err.readingEnd) return {};
    posix_spawn_file_actions_adddup2(&options.actions, out.writingEnd.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&options.actions, err.writingEnd.get(), STDERR_FILENO);
  }
  posix_spawn_file_actions_addclosefrom_np(&options.actions, STDERR_FILENO + 1);

  std::vector<std::string> words{launchPath};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> variables = environment_.variables();
  pid_t child = 0;
  if (posix_spawn(&child, sysroot_.machinePath(launchPath).c_str(), &options.actions, &options.attributes,
                  argumentVector(words).data(), argumentVector(variables).data()) != 0) {
    return {};
  }
  out.writingEnd.reset();
  err.writingEnd.reset();
  std::string output;
  std::string errorOutput;
  if (captures) collect(child, out, err, output, errorOutput);
  ChildProcessResult result = reaped(child);
  result.standardOutput = unlessEmpty(std::move(output));
  result.standardError = unlessEmpty(std::move(errorOutput));
  return result;
}

}  // namespace platform::posix
