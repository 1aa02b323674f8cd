#pragma once

#include "CodeSignature/Failure.h"
#include "CodeSignature/InputFile.h"

#include <string>
#include <vector>

namespace platform::codesignature {

struct DirectoryEntry {
  enum class Kind { file, directory, link, other };
  std::string name;
  Kind kind;
  bool isExecutable;  ///< a file that someone may execute
};

/// The entries of an open folder but for itself and its parent, by the bytes of their names. Links are not followed.
[[nodiscard]] Result<std::vector<DirectoryEntry>> directoryEntries(int directory);

/// A folder in the one open at `directory`; links are not followed.
[[nodiscard]] Result<posix::FileDescriptor> openFolder(int directory, const std::string& name);

/// Opens what lies at a relative path with no link on the way, the last component included; `flags` as for openat.
[[nodiscard]] Result<posix::FileDescriptor> openBeneath(int directory, const std::string& path, int flags);

/// The text of a link.
[[nodiscard]] Result<std::string> linkText(int directory, const std::string& name);

}  // namespace platform::codesignature
