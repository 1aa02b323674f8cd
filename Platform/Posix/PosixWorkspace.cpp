#include "Posix/PosixWorkspace.h"

#include "Posix/FileDescriptor.h"
#include "Posix/MainBundle.h"
#include "Posix/Pidfd.h"
#include "Posix/PosixFileManager.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::posix {
namespace {

namespace fs = std::filesystem;

bool isApplicationName(std::string_view name) {
  return name.ends_with(".app");
}

/// The directories in a folder of the machine, links to directories included, sorted by the bytes of their names. A
/// folder that cannot be read has none.
std::vector<std::string> subdirectories(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_directory(ignored)) names.push_back(entry->path().filename());
  }
  std::ranges::sort(names);
  return names;
}

void appendBundles(const std::string& folder, const std::vector<std::string>& names,
                   std::vector<std::string>& bundles) {
  for (const std::string& name : names) {
    if (isApplicationName(name)) bundles.push_back(fmt::format("{}/{}", folder, name));
  }
}

/// Where the executable of a process lies, also when the file has been replaced since; absent for a process that is
/// gone, is a zombie or belongs to somebody else.
std::optional<std::string> executablePath(const std::string& processFolder) {
  struct stat owner{};
  if (stat(processFolder.c_str(), &owner) != 0 || owner.st_uid != getuid()) return std::nullopt;
  const std::string link = processFolder + "/exe";
  std::array<char, PATH_MAX + 16> target{};
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  if (length <= 0) return std::nullopt;
  std::string path(target.data(), static_cast<std::size_t>(length));
  static constexpr std::string_view deleted = " (deleted)";
  if (path.ends_with(deleted)) {
    // The kernel marks a file that is gone; a file that bears such a name is still there and is the very same.
    struct stat named{};
    struct stat running{};
    const bool isItsName = stat(path.c_str(), &named) == 0 && stat(link.c_str(), &running) == 0 &&
                           named.st_dev == running.st_dev && named.st_ino == running.st_ino;
    if (!isItsName) path.resize(path.size() - deleted.size());
  }
  return path;
}

class ProcRunningApplication final : public RunningApplication {
 public:
  ProcRunningApplication(pid_t pid, FileDescriptor process, std::optional<std::string> identifier)
      : pid_(pid), process_(std::move(process)), identifier_(std::move(identifier)) {}

  [[nodiscard]] const std::optional<std::string>& bundleIdentifier() const override { return identifier_; }
  [[nodiscard]] std::int32_t processIdentifier() const override { return pid_; }
  bool terminate() override { return send(SIGTERM); }
  bool forceTerminate() override { return send(SIGKILL); }

 private:
  // By descriptor: a process identifier may have gone to another process by now.
  [[nodiscard]] bool send(int signal) const { return pidfd_send_signal(process_.get(), signal, nullptr, 0) == 0; }

  pid_t pid_;
  FileDescriptor process_;
  std::optional<std::string> identifier_;
};

std::vector<pid_t> processIdentifiers() {
  std::vector<pid_t> pids;
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename();
    pid_t pid = 0;
    const auto [rest, failure] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (failure == std::errc() && *rest == '\0') pids.push_back(pid);
  }
  std::ranges::sort(pids);
  return pids;
}

}  // namespace

PosixWorkspace::PosixWorkspace(Machine machine) : machine_(std::move(machine)), resolvedHome_(machine_.home) {
  std::array<char, PATH_MAX> resolved{};
  if (realpath(machine_.home.c_str(), resolved.data()) != nullptr) resolvedHome_ = resolved.data();
}

std::vector<std::string> PosixWorkspace::registeredBundles() const {
  std::vector<std::string> folders;
  for (const URL& directory : HomeSearchPaths(machine_.home).applicationDirectories()) {
    folders.push_back(directory.path());
  }
  folders.push_back(machine_.home + "/Desktop");
  folders.push_back(machine_.home + "/Downloads");

  std::vector<std::string> bundles;
  for (const std::string& folder : folders) {
    const std::vector<std::string> names = subdirectories(machine_.sysroot.machinePath(folder));
    appendBundles(folder, names, bundles);
    for (const std::string& name : names) {
      if (isApplicationName(name)) continue;
      const std::string inner = fmt::format("{}/{}", folder, name);
      appendBundles(inner, subdirectories(machine_.sysroot.machinePath(inner)), bundles);
    }
  }
  return bundles;
}

std::vector<URL> PosixWorkspace::urlsForApplications(std::string_view identifier) const {
  std::vector<URL> urls;
  for (const std::string& bundle : registeredBundles()) {
    const auto information = informationDictionary(machine_.sysroot.machinePath(bundle));
    if (information && bundleIdentifier(*information) == identifier) {
      urls.push_back(URL::fileURL(bundle, URL::PathKind::directory));
    }
  }
  return urls;
}

std::optional<URL> PosixWorkspace::urlForApplication(std::string_view identifier) const {
  std::vector<URL> urls = urlsForApplications(identifier);
  if (urls.empty()) return std::nullopt;
  return std::move(urls.front());
}

std::vector<std::shared_ptr<RunningApplication>> PosixWorkspace::runningApplications() const {
  std::vector<std::shared_ptr<RunningApplication>> applications;
  for (const pid_t pid : processIdentifiers()) {
    const std::string folder = "/proc/" + std::to_string(pid);
    const auto executable = executablePath(folder);
    const auto bundle = executable ? bundlePathOfExecutable(*executable) : std::nullopt;
    if (!bundle) continue;
    if (!machine_.sysroot.contains(*bundle) && !bundle->starts_with(resolvedHome_ + "/")) continue;
    // The descriptor holds the process; if it still runs what was just read, it is the same process.
    FileDescriptor process(pidfd_open(pid, 0));
    if (!process || executablePath(folder) != executable) continue;
    const auto information = informationDictionary(*bundle);
    if (!information) continue;
    applications.push_back(
        std::make_shared<ProcRunningApplication>(pid, std::move(process), bundleIdentifier(*information)));
  }
  return applications;
}

}  // namespace platform::posix
