#pragma once

#include "Platform/FileManager.h"
#include "Posix/Sysroot.h"

namespace platform::posix {

class PosixFileManager : public FileManager {
 public:
  explicit PosixFileManager(Sysroot sysroot) : sysroot_(std::move(sysroot)) {}

  [[nodiscard]] bool fileExists(const std::string& path) const override;
  [[nodiscard]] bool isWritableFile(const std::string& path) const override;
  [[nodiscard]] std::expected<std::string, NSError> contents(const URL& url, std::size_t maximumBytes) const override;
  [[nodiscard]] std::string resolvedAndStandardized(const std::string& path) const override;
  [[nodiscard]] std::expected<std::vector<URL>, NSError> contentsOfDirectory(const URL& folder) const override;
  std::expected<void, NSError> createDirectory(const URL& folder) override;
  std::expected<void, NSError> moveItem(const URL& from, const URL& to) override;
  std::expected<void, NSError> copyItem(const URL& from, const URL& to) override;
  std::expected<void, NSError> removeItem(const URL& item) override;

 private:
  Sysroot sysroot_;
};

/// The user domain beneath $HOME, the others as Mac paths.
class HomeSearchPaths final : public SearchPaths {
 public:
  explicit HomeSearchPaths(std::string home, std::string temporaryDirectory = "/tmp")
      : home_(std::move(home)), temporaryDirectory_(std::move(temporaryDirectory)) {}

  [[nodiscard]] std::vector<URL> applicationDirectories() const override;
  [[nodiscard]] std::optional<URL> userLibraryDirectory() const override;
  [[nodiscard]] URL temporaryDirectory() const override;

 private:
  std::string home_;
  std::string temporaryDirectory_;
};

}  // namespace platform::posix
