#include "ToolWorld.h"

#include "Posix/PosixChildProcess.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

namespace tools::tests {

ToolWorld::ToolWorld() {
  static const std::string base = testing::TempDir();  // before TMPDIR changes
  std::string path = base + "tools.XXXXXX";
  folder = fs::canonical(mkdtemp(path.data()));
  sysroot = folder / "Mac";
  for (const char* name : {"Mac/Applications", "Mac/Volumes", "Mac/usr/bin", "Mac/bin", "home", "tmp"}) {
    fs::create_directories(folder / name);
  }
  for (const std::string_view tool : platform::posix::systemTools) {
    fs::create_symlink(fs::path(CORVANE_TOOLS_FOLDER) / fs::path(tool).filename(), sysroot / tool.substr(1));
  }
  setenv("CORVANE_SYSROOT", sysroot.c_str(), 1);
  setenv("HOME", (folder / "home").c_str(), 1);
  setenv("TMPDIR", (folder / "tmp").c_str(), 1);
  machine = platform::posix::Machine::fromEnvironment();
}

ToolWorld::~ToolWorld() {
  std::error_code ignored;
  fs::remove_all(folder, ignored);
}

Outcome ToolWorld::run(const std::string& tool, const std::vector<std::string>& arguments) {
  platform::posix::PosixChildProcessLauncher launcher(platform::posix::Sysroot::fromEnvironment());
  const auto result = launcher.run(tool, arguments, platform::ChildProcessLauncher::Capture::yes);
  return {.status = result.status,
          .output = result.standardOutput.value_or(""),
          .error = result.standardError.value_or("")};
}

fs::path ToolWorld::write(const fs::path& path, const std::string& bytes) const {
  const fs::path full = folder / path;
  fs::create_directories(full.parent_path());
  std::ofstream(full, std::ios::binary) << bytes;
  return full;
}

std::string ToolWorld::read(const fs::path& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return bytes.str();
}

std::vector<std::string> ToolWorld::tree(const fs::path& folder) {
  std::vector<std::string> entries;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    const fs::file_status status = entry.symlink_status();
    const std::string name = entry.path().lexically_relative(folder);
    const auto permissions = static_cast<unsigned>(status.permissions());
    if (fs::is_symlink(status)) {
      entries.push_back(fmt::format("{} -> {}", name, fs::read_symlink(entry.path()).native()));
    } else if (fs::is_directory(status)) {
      entries.push_back(fmt::format("{}/ {:o}", name, permissions));
    } else {
      const bool isFile = fs::is_regular_file(status);
      entries.push_back(fmt::format("{} {:o} {}", name, permissions, isFile ? read(entry.path()) : "(special)"));
    }
  }
  std::ranges::sort(entries);
  return entries;
}

}  // namespace tools::tests
