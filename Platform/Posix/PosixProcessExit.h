#pragma once

#include "Platform/ProcessExit.h"

#include <cstdlib>

namespace platform::posix {

class PosixProcessExit final : public ProcessExit {
 public:
  [[noreturn]] void exitImmediately(int status) override { std::_Exit(status); }
};

}  // namespace platform::posix
