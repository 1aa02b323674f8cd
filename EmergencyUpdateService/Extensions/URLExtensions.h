#pragma once

#include "Platform/URL.h"

#include <string_view>

namespace corvane {

/// The URL of a built-in constant. A constant that does not parse is a mistake in this program: the process stops with
/// the fatal error "Failed to parse static URL: `…`".
platform::URL urlFromStaticString(std::string_view staticString);

}  // namespace corvane
