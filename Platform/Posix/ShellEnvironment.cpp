#include "Posix/ShellEnvironment.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

namespace platform::posix {
namespace {

std::string singleQuoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

FileDescriptor memoryFile(std::string_view text) {
  FileDescriptor file(memfd_create("bash-functions", MFD_CLOEXEC));
  if (file && write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) file.reset();
  return file;
}

}  // namespace

ShellEnvironment::ShellEnvironment(const Sysroot& sysroot) {
  if (sysroot.isWholeMachine()) return;
  toolFolders_ = fmt::format("{}:{}", sysroot.beneath("usr/bin"), sysroot.beneath("bin"));
  std::string functions;
  for (const std::string_view tool : systemTools) {
    functions += fmt::format("function {} {{ {} \"$@\"; }}\n", tool, singleQuoted(sysroot.machinePath(tool)));
  }
  functions_ = memoryFile(functions);
}

std::vector<std::string> ShellEnvironment::variables() const {
  std::vector<std::string> variables;
  // Where nobody named any folders, those of the machine's own programs count.
  std::string path = "/usr/bin:/bin:/usr/sbin:/sbin";
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view variable = *entry;
    if (!toolFolders_.empty() && variable.starts_with("PATH=")) {
      if (variable.size() > 5) path = variable.substr(5);
    } else if (!functions_ || !variable.starts_with("BASH_ENV=")) {
      variables.emplace_back(variable);
    }
  }
  if (!toolFolders_.empty()) variables.push_back(fmt::format("PATH={}:{}", toolFolders_, path));
  if (functions_) variables.push_back(fmt::format("BASH_ENV=/proc/{}/fd/{}", getpid(), functions_.get()));
  return variables;
}

}  // namespace platform::posix
