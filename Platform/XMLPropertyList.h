#pragma once

#include "Platform/PropertyList.h"

#include <optional>
#include <string_view>

namespace platform {

/// Reads an XML property list in UTF-8 or UTF-16, with a byte-order mark or without. Absent when any part of it is
/// malformed: unknown elements, text or elements where none may stand, a key without a value, contents that are none
/// of their kind, a document type that declares anything, and references to entities. Attributes and what follows the
/// end of the root are not looked at; the root may be a bare value without the plist element.
///
/// Of equal keys the last counts. A dictionary whose only key is "CF$UID" with an integer is a UID.
std::optional<PropertyList> parseXMLPropertyList(std::string_view bytes);

}  // namespace platform
