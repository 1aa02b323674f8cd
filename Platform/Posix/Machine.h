#pragma once

#include "Posix/Sysroot.h"

#include <string>

namespace platform::posix {

/// The three places that tell one stand-in Mac from another: its sysroot, the user's home and the temporary directory
/// (both without a trailing slash). A value; tests make their own.
struct Machine {
  Sysroot sysroot;
  std::string home;
  std::string temporaryDirectory;

  /// From CORVANE_SYSROOT, HOME (the password database when unset) and TMPDIR (/tmp when unset).
  static Machine fromEnvironment();
};

}  // namespace platform::posix
