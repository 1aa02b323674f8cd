#include "Posix/Sysroot.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>

namespace platform::posix {
namespace {

constexpr std::array<std::string_view, 5> macFolders = {"Applications", "Library", "Network", "System", "Volumes"};

std::string withoutTrailingSlashes(std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  return std::string(path);
}

bool isMacPath(std::string_view path) {
  if (!path.starts_with('/')) return false;
  if (std::ranges::find(systemTools, path) != std::end(systemTools)) return true;
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  return std::ranges::find(macFolders, path.substr(0, path.find('/'))) != macFolders.end();
}

bool isBeneath(std::string_view path, std::string_view root) {
  return path.starts_with(root) && path.size() > root.size() && path[root.size()] == '/';
}

}  // namespace

Sysroot::Sysroot(std::string_view root) : root_(withoutTrailingSlashes(root)), resolvedRoot_(root_) {
  std::array<char, PATH_MAX> buffer{};
  if (!root_.empty() && realpath(root_.c_str(), buffer.data()) != nullptr) {
    resolvedRoot_ = withoutTrailingSlashes(buffer.data());
  }
}

Sysroot Sysroot::fromEnvironment() {
  const char* root = std::getenv("CORVANE_SYSROOT");  // NOLINT(concurrency-mt-unsafe): before any other thread runs
  return Sysroot(root == nullptr ? "" : root);
}

std::string Sysroot::machinePath(std::string_view path) const {
  return isMacPath(path) ? root_ + std::string(path) : std::string(path);
}

std::string Sysroot::macPath(std::string_view machinePath) const {
  for (const std::string& root : {root_, resolvedRoot_}) {
    if (!isBeneath(machinePath, root)) continue;
    const std::string_view rest = machinePath.substr(root.size());
    if (isMacPath(rest)) return std::string(rest);
  }
  return std::string(machinePath);
}

std::string Sysroot::beneath(std::string_view relativePath) const {
  return root_ + "/" + std::string(relativePath);
}

bool Sysroot::contains(std::string_view machinePath) const {
  return isBeneath(machinePath, resolvedRoot_);
}

}  // namespace platform::posix
