#pragma once

#include "Platform/PropertyList.h"

#include <optional>
#include <string_view>

namespace platform {

/// Reads a binary property list ("bplist00": objects, offset table, 32-byte trailer, all big-endian). Absent when any
/// part of it is malformed, for values no PropertyList has (integers beyond 64 bits, null, sets), and when shared
/// objects would unfold to more values or bytes than a PropertyList may have. Of equal keys the last counts.
std::optional<PropertyList> parseBinaryPropertyList(std::string_view bytes);

}  // namespace platform
