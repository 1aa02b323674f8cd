#pragma once

#include "Posix/Machine.h"

#include <string>
#include <vector>

namespace tools {

/// open PATH [--args ARG…]: starts the application at PATH in a session of its own, in "/", with no descriptors but
/// /dev/null, default signal handling and this process's environment but for BASH_ENV, and does not wait for it. A
/// process of its own stays behind as the application's parent until that ends, in launchd's place. When a process of
/// that very bundle runs already there is nothing to do, and the arguments reach nobody. Returns the exit status: 0, or
/// 1 with a message.
int open(const platform::posix::Machine& machine, std::vector<std::string> words);

}  // namespace tools
