#include "Support/ChildProgram.h"

#include "Posix/ArgumentVector.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tools {
namespace {

using platform::posix::FileDescriptor;

constexpr int firstFreeDescriptor = 10;

void resetSignals() {
  for (int signal = 1; signal < NSIG; ++signal) std::signal(signal, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Puts the descriptors where the program expects them. Both are moved out of the way first, lest one lie where the
/// other goes.
void arrangeDescriptors(int input, int output, int outputAs) {
  const int nothing = ::open("/dev/null", O_RDWR);
  const int movedInput = fcntl(input >= 0 ? input : nothing, F_DUPFD, firstFreeDescriptor);
  const int movedOutput = fcntl(output, F_DUPFD, firstFreeDescriptor);
  const int movedNothing = fcntl(nothing, F_DUPFD, firstFreeDescriptor);
  dup2(movedInput, STDIN_FILENO);
  dup2(movedNothing, STDOUT_FILENO);
  dup2(movedNothing, STDERR_FILENO);
  dup2(movedOutput, outputAs);
  close_range(static_cast<unsigned>(std::max(outputAs, STDERR_FILENO)) + 1, ~0U, 0);
}

[[noreturn]] void become(const ChildProgram::Start& start, int output, pid_t starter) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != starter) _exit(notFoundStatus);
  resetSignals();
  umask(0);
  setenv("LC_ALL", "C.UTF-8", 1);
  arrangeDescriptors(start.input, output, start.outputAs);
  if (!start.workingFolder.empty() && chdir(start.workingFolder.c_str()) != 0) _exit(notFoundStatus);
  std::vector<std::string> words = start.words;
  execvp(words.front().c_str(), platform::posix::argumentVector(words).data());
  _exit(notFoundStatus);
}

}  // namespace

std::expected<ChildProgram, int> ChildProgram::start(const Start& start) {
  std::array<int, 2> ends{-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return std::unexpected(errno);
  FileDescriptor readingEnd(ends[0]);
  const FileDescriptor writingEnd(ends[1]);
  const pid_t starter = getpid();
  const pid_t process = fork();
  if (process < 0) return std::unexpected(errno);
  if (process == 0) become(start, writingEnd.get(), starter);
  return ChildProgram(process, std::move(readingEnd));
}

ChildProgram::ChildProgram(ChildProgram&& other) noexcept
    : process_(std::exchange(other.process_, -1)), output_(std::move(other.output_)) {}

ChildProgram::~ChildProgram() {
  if (process_ < 0) return;
  kill(process_, SIGKILL);
  finish();
}

std::size_t ChildProgram::read(std::span<char> buffer) {
  std::size_t filled = 0;
  while (filled < buffer.size()) {
    const ssize_t count = ::read(output_.get(), buffer.data() + filled, buffer.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    filled += static_cast<std::size_t>(count);
  }
  return filled;
}

void ChildProgram::forEachLine(const std::function<void(std::string_view)>& line) {
  std::array<char, 65536> chunk{};
  std::string pending;
  while (const std::size_t count = read(chunk)) {
    pending.append(chunk.data(), count);
    std::size_t start = 0;
    for (std::size_t end = 0; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
      line(std::string_view(pending).substr(start, end - start));
    }
    pending.erase(0, start);
  }
  if (!pending.empty()) line(pending);
}

int ChildProgram::finish() {
  std::array<char, 65536> rest{};
  while (read(rest) != 0) continue;
  int status = 0;
  while (waitpid(process_, &status, 0) < 0 && errno == EINTR) continue;
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace tools
