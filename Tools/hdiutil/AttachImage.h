#pragma once

#include "hdiutil/AttachedVolumes.h"

#include <expected>
#include <string>

namespace tools {

struct ImageAttachment {
  std::string image;  ///< paths of the machine
  std::string mountPoint;
  bool verify = true;
};

/// Makes the files of the image's volume appear below the mount point, which is created if it is missing and must be
/// empty if it is not. The result is the kind of the volume ("Apple_HFS"), or on failure the reason in words; then
/// nothing is left at the mount point. When the tool is killed half-way, the mount point counts as attached and can be
/// detached.
std::expected<std::string, std::string> attachImage(const ImageAttachment& attachment, const AttachedVolumes& attached);

/// Removes what an attach made appear, and the mount point. Returns 0, or the errno: ENOENT when nothing is attached
/// there, EBUSY when it cannot be removed.
int detachImage(const std::string& mountPoint, const AttachedVolumes& attached);

}  // namespace tools
