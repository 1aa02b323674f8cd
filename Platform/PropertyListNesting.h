#pragma once

#include <string_view>

namespace platform {

/// Whether the containers of an XML property list are nested at most `maximumDepth` deep, and its texts hold no more
/// entities than can be decoded in place. For parsers that recurse into the one and move the rest of a text for each of
/// the other: answers in one pass without recursion. What is malformed otherwise is left to the parser; a document type
/// that declares anything is not.
[[nodiscard]] bool isCheapToParse(std::string_view xml, int maximumDepth);

}  // namespace platform
