#pragma once

#include "Posix/FileDescriptor.h"
#include "hdiutil/VolumeListing.h"

#include <cstdint>
#include <expected>
#include <string>
#include <vector>

namespace tools {

/// The HFS+ or APFS volume of a disk image, read by 7-Zip. An image comes from anywhere: nothing it holds is written
/// outside the folder it is extracted to.
class VolumeImage {
 public:
  /// Recognises the image and lists its volume. The error is the reason in words.
  static std::expected<VolumeImage, std::string> open(const std::string& machinePath);

  /// What the volume's files take up when extracted, and how many there are.
  [[nodiscard]] std::uint64_t totalBytes() const { return listing_.totalBytes(); }
  [[nodiscard]] std::uint64_t fileCount() const { return listing_.fileCount(); }
  [[nodiscard]] bool isHfs() const { return listing_.isHfs(); }

  /// Whether the checksums in the image are those of its contents.
  [[nodiscard]] bool hasIntactChecksums() const;

  /// Extracts to an empty folder that nobody else writes to: folders and files first, links when all files stand, so
  /// that nothing is written through a link. Device nodes and the like are left out. False when anything is unreadable.
  bool extract(const std::string& folder) const;

 private:
  explicit VolumeImage(platform::posix::FileDescriptor image) : image_(std::move(image)) {}

  [[nodiscard]] std::vector<std::string> command(std::vector<std::string> words) const;
  /// The status of 7-Zip.
  int list(const std::string& format);
  bool extractFiles(const std::string& folder) const;
  bool extractLinks(const std::string& folder) const;
  bool restrictFolders(const std::string& folder) const;
  [[nodiscard]] bool readLinkTexts(std::vector<VolumeListing::Link>& links) const;

  platform::posix::FileDescriptor image_;
  std::string format_;  // 7-Zip's switch that says what the image is; empty to let it find out
  VolumeListing listing_;
};

}  // namespace tools
