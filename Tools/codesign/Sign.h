#pragma once

#include <string>

namespace codesigntool {

struct SignOptions {
  std::string path;
  std::string identity;    ///< a PEM file; "-" signs ad hoc
  std::string identifier;  ///< empty: the bundle's own, else the file's name
  bool isForced = false;
};

/// `codesign --sign`: 0, or 1 with a message on standard error.
int sign(const SignOptions& options);

}  // namespace codesigntool
