#pragma once

#include "Posix/FileDescriptor.h"

#include <optional>
#include <string>

#include <sys/un.h>

namespace platform::posix {

/// The address of a socket by its name in a folder. A socket address holds some hundred bytes and a folder's path may
/// be longer, so the socket is named by way of a descriptor of its folder. Absent for a file name that is too long even
/// so.
std::optional<sockaddr_un> addressInFolder(const FileDescriptor& folder, const std::string& name);

}  // namespace platform::posix
