#pragma once

#include "Platform/ChildProcess.h"
#include "Posix/ShellEnvironment.h"
#include "Posix/Sysroot.h"

namespace platform::posix {

class PosixChildProcessLauncher final : public ChildProcessLauncher {
 public:
  explicit PosixChildProcessLauncher(const Sysroot& sysroot) : sysroot_(sysroot), environment_(sysroot) {}

  ChildProcessResult run(const std::string& launchPath, const std::vector<std::string>& arguments,
                         Capture capture) override;

 private:
  Sysroot sysroot_;
  ShellEnvironment environment_;
};

}  // namespace platform::posix
