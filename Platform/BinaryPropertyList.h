#pragma once

#include "Platform/PropertyList.h"

#include <optional>
#include <string_view>

namespace platform {

/// Reads a binary property list ("bplist00": objects, offset table, 32-byte trailer, all big-endian). Absent when any
/// part of it is malformed, for values no PropertyList has (integers beyond 64 bits, null, sets), beyond PropertyList's
/// bounds, and when objects are shared so that they would unfold to more values than the list has bytes or to more
/// contents than PropertyList::maximumBytes. Of equal keys the last counts.
std::optional<PropertyList> parseBinaryPropertyList(std::string_view bytes);

}  // namespace platform
