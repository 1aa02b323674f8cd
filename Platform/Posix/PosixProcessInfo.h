#pragma once

#include "Platform/ProcessInfo.h"
#include "Posix/Sysroot.h"

namespace platform::posix {

/// Version from /System/Library/CoreServices/SystemVersion.plist; machine from the first line of the file `machine`
/// beside it, else from uname(2), which calls arm64 aarch64.
class PosixProcessInfo final : public ProcessInfo {
 public:
  explicit PosixProcessInfo(Sysroot sysroot) : sysroot_(std::move(sysroot)) {}

  [[nodiscard]] OperatingSystemVersion operatingSystemVersion() const override;
  [[nodiscard]] std::string unameMachine() const override;

 private:
  Sysroot sysroot_;
};

}  // namespace platform::posix
