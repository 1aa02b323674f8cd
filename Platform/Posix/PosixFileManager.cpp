#include "Posix/PosixFileManager.h"

#include "Posix/FileDescriptor.h"
#include "Posix/PosixError.h"

#include <array>
#include <climits>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

namespace platform::posix {
namespace {

/// Takes out empty and "." components and each ".." with the component before it.
std::string standardized(std::string_view path) {
  std::vector<std::string_view> components;
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view component = path.substr(start, end - start);
    if (component == "..") {
      if (!components.empty()) components.pop_back();
    } else if (!component.empty() && component != ".") {
      components.push_back(component);
    }
    start = end + 1;
  }
  std::string result;
  for (const std::string_view component : components) result.append("/").append(component);
  return result.empty() ? "/" : result;
}

}  // namespace

bool PosixFileManager::fileExists(const std::string& path) const {
  struct stat status{};
  return stat(sysroot_.machinePath(path).c_str(), &status) == 0;
}

bool PosixFileManager::isWritableFile(const std::string& path) const {
  return access(sysroot_.machinePath(path).c_str(), W_OK) == 0;
}

std::expected<std::string, NSError> PosixFileManager::contents(const URL& url, std::size_t maximumBytes) const {
  if (!url.isFileURL()) return std::unexpected(NSError(NSCocoaErrorDomain, NSFileReadUnsupportedSchemeError));
  auto bytes = readRegularFile(sysroot_.machinePath(url.path()), maximumBytes);
  if (!bytes) return std::unexpected(cocoaError(bytes.error(), Access::reading, url.path()));
  return std::move(*bytes);
}

std::string PosixFileManager::resolvedAndStandardized(const std::string& path) const {
  std::array<char, PATH_MAX> resolved{};
  if (realpath(sysroot_.machinePath(path).c_str(), resolved.data()) == nullptr) return standardized(path);
  return sysroot_.macPath(resolved.data());
}

std::vector<URL> HomeSearchPaths::applicationDirectories() const {
  std::vector<URL> directories;
  if (!home_.empty()) directories.push_back(URL::fileURL(home_ + "/Applications", URL::PathKind::directory));
  for (const char* path : {"/Applications", "/Network/Applications", "/System/Applications"}) {
    directories.push_back(URL::fileURL(path, URL::PathKind::directory));
  }
  return directories;
}

std::optional<URL> HomeSearchPaths::userLibraryDirectory() const {
  if (home_.empty()) return std::nullopt;
  return URL::fileURL(home_ + "/Library", URL::PathKind::directory);
}

}  // namespace platform::posix
