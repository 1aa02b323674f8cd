#pragma once

#include "Posix/Machine.h"

#include <string>
#include <vector>

namespace tools {

/// launchctl bootstrap gui/UID PLIST, bootout gui/UID/LABEL and list, for the one domain of this Mac: that of the user.
///
/// Models the list of loaded jobs and nothing more: a loaded job is the property list $TMPDIR/launchd/<label>.plist.
/// bootstrap starts no program and bootout ends none. Returns the exit status, which for a failed operation is the
/// number that its message names.
int launchctl(const platform::posix::Machine& machine, const std::vector<std::string>& words);

}  // namespace tools
