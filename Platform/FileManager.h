#pragma once

#include "Platform/NSError.h"
#include "Platform/URL.h"

#include <expected>
#include <optional>
#include <string>
#include <vector>

namespace platform {

/// File-system operations with the platform's results. Failures carry a Cocoa code, by whether the operation reads or
/// writes, over the POSIX error (by its number on a Mac) that caused it. Paths and URLs are Mac paths. Any thread.
class FileManager {
 public:
  virtual ~FileManager() = default;

  /// Whether anything is at the path, links followed: a dangling link is nothing.
  [[nodiscard]] virtual bool fileExists(const std::string& path) const = 0;

  /// Whether this user may write the item itself (not its folder); no promise that a write succeeds.
  [[nodiscard]] virtual bool isWritableFile(const std::string& path) const = 0;

  /// The bytes of a regular file, at most `maximumBytes`; anything else is a read error.
  [[nodiscard]] virtual std::expected<std::string, NSError> contents(const URL& url,
                                                                     std::size_t maximumBytes) const = 0;

  /// The path with every symbolic link resolved and then standardized; unchanged but for `.`, `..` and doubled slashes
  /// when nothing is there. The platform's stripping of "/private" is left out.
  [[nodiscard]] virtual std::string resolvedAndStandardized(const std::string& path) const = 0;
};

/// The folders the platform names by purpose. Any thread.
class SearchPaths {
 public:
  virtual ~SearchPaths() = default;

  /// The applications directories of all domains: user, local, network, system. They need not exist.
  [[nodiscard]] virtual std::vector<URL> applicationDirectories() const = 0;

  /// The user's Library directory, not created; absent when there is no home directory.
  [[nodiscard]] virtual std::optional<URL> userLibraryDirectory() const = 0;
};

}  // namespace platform
