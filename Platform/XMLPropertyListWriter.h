#pragma once

#include "Platform/PropertyList.h"

#include <string>

namespace platform {

/// The value as an XML property list in UTF-8, indented by tabs, keys in the order of their bytes. XML cannot hold
/// everything: characters it has no place for (control characters but tab and line ends, U+FFFE, U+FFFF, surrogates)
/// and bytes that are no UTF-8 become U+FFFD, dates lose the part of a second, and a UID becomes a dictionary with the
/// one key "CF$UID", which reads back as a UID.
[[nodiscard]] std::string xmlPropertyList(const PropertyList& value);

}  // namespace platform
