#pragma once

#include "Platform/PropertyList.h"

#include <string>

namespace platform {

/// The value as a binary property list ("bplist00"), in its smallest form: equal objects but containers (readers take
/// shared ones for an attack) are stored once, integers, offsets and references take 1, 2, 4 or 8 bytes, reals 4 when
/// that loses nothing. The same value always gives the same bytes. A string that is no UTF-8 is written byte for byte
/// in the form for ASCII, as it was read.
[[nodiscard]] std::string binaryPropertyList(const PropertyList& value);

}  // namespace platform
