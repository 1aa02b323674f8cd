#pragma once

#include <optional>
#include <string>

namespace codesigntool {

struct VerifyOptions {
  std::string path;
  std::optional<std::string> requirement;  ///< a text, after any number of "="
  bool isVerbose = false;
};

/// `codesign --verify`: 0 valid, 1 not valid, 2 a requirement that does not compile, 3 valid but for the requirement.
int verify(const VerifyOptions& options);

}  // namespace codesigntool
