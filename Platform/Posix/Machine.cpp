#include "Posix/Machine.h"

#include <array>
#include <cstdlib>

#include <pwd.h>
#include <unistd.h>

namespace platform::posix {
namespace {

std::string homeFromPasswordDatabase() {
  std::array<char, 16384> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return {};
  return found->pw_dir;
}

std::string folderFromEnvironment(const char* variable, const std::string& fallback) {
  const char* value = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe): before any other thread runs
  std::string folder = value == nullptr || *value == '\0' ? fallback : value;
  while (folder.size() > 1 && folder.ends_with('/')) folder.pop_back();
  return folder;
}

}  // namespace

Machine Machine::fromEnvironment() {
  return {.sysroot = Sysroot::fromEnvironment(),
          .home = folderFromEnvironment("HOME", homeFromPasswordDatabase()),
          .temporaryDirectory = folderFromEnvironment("TMPDIR", "/tmp")};
}

}  // namespace platform::posix
