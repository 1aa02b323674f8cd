#pragma once

#include <string_view>

namespace platform {

/// Whether the containers of an XML property list are nested at most `maximum` deep. For parsers that recurse into
/// them: answers in one pass without recursion. What is malformed otherwise is left to the parser; a document type that
/// declares anything is not.
[[nodiscard]] bool isNestedAtMost(int maximum, std::string_view xml);

}  // namespace platform
