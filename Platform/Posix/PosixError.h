#pragma once

#include "Platform/NSError.h"

#include <string>

namespace platform::posix {

enum class Access { reading, writing };

/// The NSCocoaErrorDomain error for an errno of this machine: the code by the cause and the kind of operation, the
/// POSIX error under it by its number on a Mac, the path as the user-info entry.
NSError cocoaError(int systemError, Access access, const std::string& path);

/// The number that the errno of this machine has on a Mac.
int darwinErrorNumber(int systemError);

}  // namespace platform::posix
