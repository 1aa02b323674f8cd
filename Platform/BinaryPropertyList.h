#pragma once

#include "Platform/PropertyList.h"

#include <optional>
#include <string_view>

namespace platform {

/// Reads a binary property list ("bplist00": objects, offset table, 32-byte trailer, all big-endian). Absent when any
/// part of it is malformed, for values no PropertyList has (integers of 128 bits, sets), beyond 256 levels, beyond
/// a million values, and when objects are shared so that they would unfold to more values than the list has bytes or to
/// more contents than PropertyList::maximumBytes.
///
/// Our own reader, because the library's ends the process on a dictionary key with a NUL in it.
std::optional<PropertyList> parseBinaryPropertyList(std::string_view bytes);

}  // namespace platform
