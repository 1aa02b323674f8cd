#pragma once

#include "Posix/Machine.h"

#include <string>

namespace tools {

/// The mount points of this Mac at which a volume is attached: one record each in $TMPDIR/hdiutil, named after the
/// identity of the folder (device, inode, time of birth), so that whatever else comes to lie at the same path later is
/// not taken for it. Records outlive a crash of the tool, which makes what it left behind detachable.
class AttachedVolumes {
 public:
  explicit AttachedVolumes(const platform::posix::Machine& machine)
      : folder_(machine.temporaryDirectory + "/hdiutil") {}

  [[nodiscard]] bool contains(const std::string& mountPoint) const;

  /// Returns 0 or the errno.
  int add(const std::string& mountPoint) const;

  /// Forgets what record() named while the mount point still stood.
  void remove(const std::string& record) const;

  /// The record that belongs to a folder, whether there is one or not; empty when there is no such folder, or when it
  /// is a link.
  [[nodiscard]] std::string record(const std::string& mountPoint) const;

 private:
  std::string folder_;
};

}  // namespace tools
