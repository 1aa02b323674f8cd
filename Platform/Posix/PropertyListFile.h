#pragma once

#include "Platform/PropertyList.h"

#include <optional>
#include <string>

namespace platform::posix {

/// The dictionary that a property list of the machine holds; absent when the file cannot be read, is larger than a
/// property list may be, or holds anything else.
std::optional<PropertyList> readDictionary(const std::string& machinePath);

}  // namespace platform::posix
