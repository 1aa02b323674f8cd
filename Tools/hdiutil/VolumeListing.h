#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

/// What 7-Zip's technical listing tells of an image: the innermost format it found there, and the files of the volume.
/// Fed line by line; keeps only what extraction does not do by itself.
class VolumeListing {
 public:
  struct Link {
    std::string path;        ///< as 7-Zip names it, relative, the volume's own folder included
    std::uint64_t size = 0;  ///< of its text, in bytes
    std::string text;        ///< where the format lists it; else it is the contents of the file
  };

  struct Folder {
    std::string path;
    unsigned permissions = 0;
  };

  void add(std::string_view line);

  /// To be called after the last line.
  void finish();

  [[nodiscard]] bool isHfs() const { return format_ == "HFS"; }
  [[nodiscard]] bool isMountable() const { return isHfs() || format_ == "APFS"; }

  /// False when a path would leave the volume, lies deeper than any real one, or there are more links than any volume
  /// has.
  [[nodiscard]] bool isSafe() const { return isSafe_; }

  [[nodiscard]] std::uint64_t totalBytes() const { return totalBytes_; }
  [[nodiscard]] std::uint64_t fileCount() const { return fileCount_; }
  [[nodiscard]] const std::vector<Link>& links() const { return links_; }
  /// The folders that deny something to their owner, which 7-Zip does not extract as such; outer ones before inner
  /// ones.
  [[nodiscard]] const std::vector<Folder>& restrictedFolders() const { return restrictedFolders_; }
  /// Device nodes, sockets and fifos.
  [[nodiscard]] const std::vector<std::string>& specialFiles() const { return specialFiles_; }

 private:
  struct Entry {
    std::string path;
    std::string mode;
    std::string linkText;
    std::uint64_t size = 0;
    bool isAlternateStream = false;
  };

  void addToEntry(std::string_view key, std::string_view value);
  void endEntry();

  bool isInEntries_ = false;
  std::string format_;
  Entry entry_;
  bool isSafe_ = true;
  std::uint64_t totalBytes_ = 0;
  std::uint64_t fileCount_ = 0;
  std::vector<Link> links_;
  std::vector<Folder> restrictedFolders_;
  std::vector<std::string> specialFiles_;
};

}  // namespace tools
