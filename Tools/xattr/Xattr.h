#pragma once

#include "Posix/Machine.h"

#include <string>
#include <vector>

namespace tools {

/// xattr [-r] [-l] PATH…, -p NAME PATH…, -w NAME VALUE PATH…, -d NAME PATH…; the flags in any order before the
/// operands.
///
/// With -r everything below a folder is treated too: links to folders are not descended, but every entry is followed to
/// its target, so a dangling link is a failure; a file without the attribute is none. One failing file does not stop
/// the others. Returns the exit status: 1 when anything failed.
int xattr(const platform::posix::Machine& machine, const std::vector<std::string>& words);

}  // namespace tools
