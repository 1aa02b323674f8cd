#include "open/Open.h"

#include "Posix/ArgumentVector.h"
#include "Posix/FileDescriptor.h"
#include "Posix/MainBundle.h"
#include "Posix/PosixWorkspace.h"
#include "Posix/SpawnOptions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <optional>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tools {
namespace {

namespace fs = std::filesystem;
using platform::posix::FileDescriptor;
using platform::posix::Machine;

constexpr std::string_view executableIsMissing = R"(Code=-10827 "kLSNoExecutableErr: The executable is missing")";
constexpr std::string_view unexpectedError = R"(Code=-10810 "kLSUnknownErr: Unexpected internal error")";

int cannotOpen(const std::string& path, std::string_view error) {
  fmt::print(stderr,
             "The application {} cannot be opened for an unexpected reason, error=Error "
             "Domain=NSOSStatusErrorDomain {}\n",
             path, error);
  return 1;
}

/// The main executable of a bundle: a file of Contents/MacOS that may be executed.
std::optional<std::string> executable(const std::string& bundle) {
  const auto information = platform::posix::informationDictionary(bundle);
  if (!information) return std::nullopt;
  const platform::PropertyList* value = (*information)["CFBundleExecutable"];
  if (value == nullptr || value->string() == nullptr) return std::nullopt;
  const std::string& name = *value->string();
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) return std::nullopt;
  std::string path = bundle + "/Contents/MacOS/" + name;
  std::error_code error;
  if (!fs::is_regular_file(path, error) || access(path.c_str(), X_OK) != 0) return std::nullopt;
  return path;
}

/// Whether a process runs whose executable lies in this bundle (a resolved path). The kernel says " (deleted)" behind
/// the name of an executable that was replaced, which leaves the bundle's path as it is.
bool isRunning(const Machine& machine, const std::string& bundle) {
  const auto applications = platform::posix::PosixWorkspace(machine).runningApplications();
  return std::ranges::any_of(applications, [&](const auto& application) {
    std::error_code error;
    const fs::path link = fs::path("/proc") / std::to_string(application->processIdentifier()) / "exe";
    return platform::posix::bundlePathOfExecutable(fs::read_symlink(link, error).native()) == bundle;
  });
}

/// In a session of its own, with nothing of this process but its environment; not even the file of functions that bash
/// is to read, which goes with the agent. Returns 0 and the process, or the errno.
int spawn(const std::string& path, std::vector<std::string> words, pid_t& process) {
  words.insert(words.begin(), path);
  const std::vector<char*> arguments = platform::posix::argumentVector(words);
  unsetenv("BASH_ENV");  // NOLINT(concurrency-mt-unsafe): there is one thread

  platform::posix::SpawnOptions options(POSIX_SPAWN_SETSID);
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&options.actions, descriptor, "/dev/null", O_RDWR, 0);
  }
  posix_spawn_file_actions_addclosefrom_np(&options.actions, STDERR_FILENO + 1);
  posix_spawn_file_actions_addchdir_np(&options.actions, "/");
  return posix_spawn(&process, path.c_str(), &options.actions, &options.attributes, arguments.data(), environ);
}

/// What launchd is on a Mac: the parent of the application, there to take note of its end. Without it an application
/// that has quit would be a zombie, and to `kill -0` alive, until the machine's first process took it, if that ever
/// does.
[[noreturn]] void keep(const std::string& path, std::vector<std::string> arguments, const FileDescriptor& report) {
  setsid();
  const int nowhere = ::open("/dev/null", O_RDWR);
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nowhere, descriptor);
  pid_t process = 0;
  const int failure = spawn(path, std::move(arguments), process);
  const bool isReported = write(report.get(), &failure, sizeof failure) == sizeof failure;
  close_range(STDERR_FILENO + 1, ~0U, 0);
  while (isReported && failure == 0 && waitpid(process, nullptr, 0) < 0 && errno == EINTR) continue;
  _exit(0);
}

/// Starts it detached and waits until its process is there to be seen, which is when its keeper says so. Returns 0 or
/// the errno.
int launch(const std::string& path, std::vector<std::string> arguments) {
  std::array<int, 2> ends{-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return errno;
  const FileDescriptor readingEnd(ends[0]);
  FileDescriptor writingEnd(ends[1]);
  const pid_t keeper = fork();
  if (keeper < 0) return errno;
  if (keeper == 0) keep(path, std::move(arguments), writingEnd);
  writingEnd.reset();
  int failure = EIO;
  while (read(readingEnd.get(), &failure, sizeof failure) < 0 && errno == EINTR) continue;
  return failure;
}

int openApplication(const Machine& machine, const std::string& path, std::vector<std::string> arguments) {
  std::error_code error;
  const std::string bundle = fs::canonical(machine.sysroot.machinePath(path), error);
  if (error) {
    fmt::print(stderr, "The file {} does not exist.\n", path);
    return 1;
  }
  if (!fs::is_directory(bundle, error) || !bundle.ends_with(".app")) {
    fmt::print(stderr, "No application knows how to open {}.\n", path);
    return 1;
  }
  const auto program = executable(bundle);
  if (!program) return cannotOpen(path, executableIsMissing);
  // Of several that open the bundle at once, one starts it and the others see its process.
  const FileDescriptor turn(::open(bundle.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (turn) flock(turn.get(), LOCK_EX);
  if (isRunning(machine, bundle)) return 0;
  return launch(*program, std::move(arguments)) == 0 ? 0 : cannotOpen(path, unexpectedError);
}

}  // namespace

int open(const Machine& machine, std::vector<std::string> words) {
  const auto separator = std::ranges::find(words, "--args");
  std::vector<std::string> arguments;
  if (separator != words.end()) arguments.assign(separator + 1, words.end());
  words.erase(separator, words.end());
  CLI::App app("Open an application: PATH [--args ARG...]", "open");
  std::string path;
  app.add_option("path", path, "The application's bundle")->required();
  try {
    std::ranges::reverse(words);  // as CLI11 takes a vector
    app.parse(words);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return openApplication(machine, path, std::move(arguments));
}

}  // namespace tools
