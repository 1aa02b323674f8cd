#include "Posix/PosixFileManager.h"

#include "Posix/FileTree.h"
#include "Posix/PosixError.h"
#include "Posix/RegularFile.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

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

std::expected<std::vector<URL>, NSError> PosixFileManager::contentsOfDirectory(const URL& folder) const {
  if (!folder.isFileURL()) return std::unexpected(NSError(NSCocoaErrorDomain, NSFileReadUnsupportedSchemeError));
  std::vector<URL> entries;
  std::error_code error;
  std::filesystem::directory_iterator entry(sysroot_.machinePath(folder.path()), error);
  for (const std::filesystem::directory_iterator end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.starts_with("._")) continue;
    std::error_code ignored;
    const bool isDirectory = entry->symlink_status(ignored).type() == std::filesystem::file_type::directory;
    entries.push_back(
        folder.appendingPathComponent(name, isDirectory ? URL::PathKind::directory : URL::PathKind::file));
  }
  if (!error) return entries;
  const NSError failure = cocoaError(error.value(), Access::reading, folder.path());
  // A missing folder is reported by an error of older making.
  if (error.value() == ENOENT) return std::unexpected(failure.withUnderlying(NSError(NSOSStatusErrorDomain, -43)));
  return std::unexpected(failure);
}

std::expected<void, NSError> PosixFileManager::createDirectory(const URL& folder) {
  if (!folder.isFileURL()) return std::unexpected(NSError(NSCocoaErrorDomain, NSFileWriteUnsupportedSchemeError));
  const std::string path = sysroot_.machinePath(folder.path());
  int failure = makeFolders(path, 0777);
  struct stat status{};
  if (failure == 0 && stat(path.c_str(), &status) != 0) failure = errno;
  if (failure == 0 && !S_ISDIR(status.st_mode)) failure = EEXIST;
  if (failure != 0) return std::unexpected(cocoaError(failure, Access::writing, folder.path()));
  return {};
}

std::expected<void, NSError> PosixFileManager::moveItem(const URL& from, const URL& to) {
  if (!from.isFileURL() || !to.isFileURL()) {
    return std::unexpected(NSError(NSCocoaErrorDomain, NSFileWriteUnsupportedSchemeError));
  }
  const std::string source = sysroot_.machinePath(from.path());
  const std::string destination = sysroot_.machinePath(to.path());
  struct stat status{};
  if (lstat(destination.c_str(), &status) == 0) return std::unexpected(cocoaError(EEXIST, Access::writing, to.path()));
  if (rename(source.c_str(), destination.c_str()) == 0) return {};
  if (errno != EXDEV) return std::unexpected(cocoaError(errno, Access::writing, from.path()));
  if (auto copied = copyItem(from, to); !copied) {
    // What somebody else has put there in the meantime is not ours to remove.
    if (copied.error().code() != NSFileWriteFileExistsError) removeTree(destination);
    return std::unexpected(NSError(NSCocoaErrorDomain, copied.error().code()).withUnderlying(copied.error()));
  }
  return removeItem(from);
}

std::expected<void, NSError> PosixFileManager::copyItem(const URL& from, const URL& to) {
  if (!from.isFileURL() || !to.isFileURL()) {
    return std::unexpected(NSError(NSCocoaErrorDomain, NSFileWriteUnsupportedSchemeError));
  }
  const std::string source = sysroot_.machinePath(from.path());
  struct stat status{};
  if (lstat(source.c_str(), &status) != 0) return std::unexpected(cocoaError(errno, Access::reading, from.path()));
  const int failure = copyTree(source, sysroot_.machinePath(to.path()));
  if (failure != 0) return std::unexpected(cocoaError(failure, Access::writing, to.path()));
  return {};
}

std::expected<void, NSError> PosixFileManager::removeItem(const URL& item) {
  if (!item.isFileURL()) return std::unexpected(NSError(NSCocoaErrorDomain, NSFileReadUnsupportedSchemeError));
  const int failure = removeTree(sysroot_.machinePath(item.path()));
  if (failure != 0) return std::unexpected(cocoaError(failure, Access::writing, item.path()));
  return {};
}

URL HomeSearchPaths::temporaryDirectory() const {
  return URL::fileURL(temporaryDirectory_, URL::PathKind::directory);
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
