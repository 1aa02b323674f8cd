#pragma once

#include <expected>
#include <string>

namespace platform::codesigning {

/// What keeps code from being signed, in words for the one who signs.
template <class T>
using Signed = std::expected<T, std::string>;

}  // namespace platform::codesigning
