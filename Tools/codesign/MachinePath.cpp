#include "codesign/MachinePath.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace codesigntool {

std::string machinePath(std::string_view macPath) {
  constexpr std::array<std::string_view, 5> folders = {"Applications", "Library", "Network", "System", "Volumes"};
  const char* sysroot = std::getenv("CORVANE_SYSROOT");
  if (sysroot == nullptr || !macPath.starts_with('/')) return std::string(macPath);
  const std::string_view first = macPath.substr(1, macPath.find('/', 1) - 1);
  const bool isMacFolder = std::ranges::find(folders, first) != folders.end();
  return isMacFolder ? std::string(sysroot).append(macPath) : std::string(macPath);
}

std::string absolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

}  // namespace codesigntool
