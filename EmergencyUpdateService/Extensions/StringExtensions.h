#pragma once

#include <string_view>

namespace corvane {

/// Whether the bytes are well-formed UTF-8: no overlong forms, no surrogates, nothing beyond U+10FFFF.
bool isUTF8(std::string_view bytes);

}  // namespace corvane
