#pragma once

#include "Posix/FileDescriptor.h"
#include "Posix/Sysroot.h"

#include <string>
#include <vector>

namespace platform::posix {

/// The environment that children get: this process's own, and on top of it what leads a script's tool names into the
/// sysroot: its bin directories at the front of PATH (of the machine's usual one where there is none), and a BASH_ENV
/// file that defines a bash function for each tool's absolute path. The file lives in memory for as long as this object
/// does.
class ShellEnvironment {
 public:
  explicit ShellEnvironment(const Sysroot& sysroot);

  /// "NAME=value" texts.
  [[nodiscard]] std::vector<std::string> variables() const;

 private:
  std::string toolFolders_;  // empty on a machine that is its own sysroot
  FileDescriptor functions_;
};

}  // namespace platform::posix
