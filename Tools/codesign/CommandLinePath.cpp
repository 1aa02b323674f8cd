#include "codesign/CommandLinePath.h"

#include "Posix/Sysroot.h"

#include <filesystem>
#include <system_error>

namespace codesigntool {

std::string absolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

std::string machineFile(const std::string& path) {
  return platform::posix::Sysroot::fromEnvironment().machinePath(absolutePath(path));
}

}  // namespace codesigntool
