#pragma once

#include "Posix/Machine.h"

#include <string>
#include <vector>

namespace tools {

/// gktool scan PATH. This Mac has no assessment service to warm up, and its policy allows everything: a path that
/// exists passes. Returns the exit status: 0, or 1 for a path that does not exist and for a usage error.
int gktool(const platform::posix::Machine& machine, std::vector<std::string> words);

}  // namespace tools
