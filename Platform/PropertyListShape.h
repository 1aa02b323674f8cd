#pragma once

#include <string_view>

namespace platform {

/// Whether the bytes of a property list, XML or binary, can be handed to a parser that recurses into containers and
/// copies what is shared: nested at most 256 deep, and in the binary form without cycles and of at most four million
/// values when nothing is shared. Answers in time proportional to the size and without recursion; what is malformed
/// otherwise is left to the parser.
[[nodiscard]] bool hasParsableShape(std::string_view bytes);

}  // namespace platform
