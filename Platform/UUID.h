#pragma once

#include <string>

namespace platform {

/// A fresh random (version 4, RFC 9562) UUID in its canonical textual form: 36 characters, upper-case hexadecimal in
/// five groups joined by hyphens. Any thread.
std::string makeUUID();

}  // namespace platform
