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

  /// The direct entries of a folder, hidden ones included but not AppleDouble companions ("._…"), in the
  /// order the file system has them.
  [[nodiscard]] virtual std::expected<std::vector<URL>, NSError> contentsOfDirectory(const URL& folder) const = 0;

  /// Creates the folder and those above it that are missing; a folder that is there already is a success.
  virtual std::expected<void, NSError> createDirectory(const URL& folder) = 0;

  /// Renames the item, or copies and removes it where it lies on another file system. Nothing may be at the
  /// destination.
  virtual std::expected<void, NSError> moveItem(const URL& from, const URL& to) = 0;

  /// Copies a file, a link (as a link) or a folder with everything in it: bytes, permissions, times, extended
  /// attributes. Nothing may be at the destination. A copy that fails midway stays as far as it came; devices, sockets
  /// and fifos fail it, and so do more than 200 folders within one another. Set-user and set-group bits are dropped.
  /// ACLs and flags are left out.
  virtual std::expected<void, NSError> copyItem(const URL& from, const URL& to) = 0;

  /// Removes a file, a link (never what it leads to) or a folder with everything in it, but no other file system
  /// mounted there, nor more than 200 folders within one another. What was removed before a failure stays removed.
  virtual std::expected<void, NSError> removeItem(const URL& item) = 0;
};

/// The folders the platform names by purpose. Any thread.
class SearchPaths {
 public:
  virtual ~SearchPaths() = default;

  /// The applications directories of all domains: user, local, network, system. They need not exist.
  [[nodiscard]] virtual std::vector<URL> applicationDirectories() const = 0;

  /// The user's Library directory, not created; absent when there is no home directory.
  [[nodiscard]] virtual std::optional<URL> userLibraryDirectory() const = 0;

  [[nodiscard]] virtual URL temporaryDirectory() const = 0;
};

}  // namespace platform
