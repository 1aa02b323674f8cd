#pragma once

#include <string>
#include <string_view>

namespace codesigntool {

/// Where a Mac path lies on this machine: below $CORVANE_SYSROOT when its first component is one of the folders a Mac
/// has there, else where it says.
[[nodiscard]] std::string machinePath(std::string_view macPath);

/// The path, counted from the working directory when it is relative.
[[nodiscard]] std::string absolutePath(const std::string& path);

}  // namespace codesigntool
