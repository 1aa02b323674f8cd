#pragma once

#include "Platform/FileManager.h"
#include "Posix/Machine.h"

namespace platform::posix {

class PosixFileManager final : public FileManager {
 public:
  explicit PosixFileManager(Sysroot sysroot) : sysroot_(std::move(sysroot)) {}

  [[nodiscard]] bool fileExists(const std::string& path) const override;
  [[nodiscard]] bool isWritableFile(const std::string& path) const override;
  [[nodiscard]] std::expected<std::string, NSError> contents(const URL& url, std::size_t maximumBytes) const override;
  [[nodiscard]] std::string resolvedAndStandardized(const std::string& path) const override;

 private:
  Sysroot sysroot_;
};

/// The user domain beneath $HOME, the others as Mac paths.
class HomeSearchPaths final : public SearchPaths {
 public:
  explicit HomeSearchPaths(std::string home) : home_(std::move(home)) {}

  [[nodiscard]] std::vector<URL> applicationDirectories() const override;
  [[nodiscard]] std::optional<URL> userLibraryDirectory() const override;

 private:
  std::string home_;
};

}  // namespace platform::posix
