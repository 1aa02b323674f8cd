#pragma once

#include <expected>
#include <string>

namespace tools {

struct ImageCreation {
  std::string sourceFolder;  ///< paths of the machine
  std::string volumeName;
  std::string output;
  bool overwrite = false;
};

/// Makes a compressed disk image with one HFS+ volume that holds what the source folder does. The image appears at its
/// path when it is complete, and not at all on failure. The error is the reason in words. Refused is what such a volume
/// would hold altered: names with ":" or that are not UTF-8, two of a folder alike but for case, an output inside the
/// source folder.
std::expected<void, std::string> createImage(const ImageCreation& creation);

}  // namespace tools
