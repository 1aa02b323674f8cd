#pragma once

#include "Posix/Machine.h"

#include <string>
#include <vector>

namespace tools {

/// hdiutil attach IMAGE -mountpoint M [-noverify] [-nobrowse] [-noautoopen], detach M [-force], and
/// create -srcfolder DIR [-volname NAME] -format UDZO [-ov] OUT.dmg.
///
/// No image is mounted in earnest: attach extracts the volume below the mount point, where it can also be written to,
/// and detach removes it. Returns the exit status: 0, 1 with a message, or 16 when a detach meets files it cannot
/// remove.
int hdiutil(const platform::posix::Machine& machine, std::vector<std::string> words);

}  // namespace tools
