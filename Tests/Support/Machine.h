#pragma once

#include "Posix/Machine.h"
#include "Rehearsal/StandInMac.h"

namespace fakes {

/// A stand-in Mac as the platform layer is told of it.
inline platform::posix::Machine machine(const rehearsal::StandInMac& mac) {
  return {.sysroot = platform::posix::Sysroot(mac.sysroot().string()),
          .home = mac.home().string(),
          .temporaryDirectory = mac.temporaryDirectory().string()};
}

}  // namespace fakes
