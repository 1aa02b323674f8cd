#pragma once

#include <string>

namespace codesigntool {

/// A path of the command line, counted from the working directory when it is relative.
[[nodiscard]] std::string absolutePath(const std::string& path);

/// The file on this machine that a path of the command line names.
[[nodiscard]] std::string machineFile(const std::string& path);

}  // namespace codesigntool
