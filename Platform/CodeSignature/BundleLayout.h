#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/Failure.h"
#include "CodeSignature/InputFile.h"
#include "Platform/PropertyList.h"

#include <optional>
#include <string>
#include <vector>

namespace platform::codesignature {

/// Where the parts of a bundle are, every one of them opened once and none through a link (but for the bundle's own
/// path and a framework's `Versions/Current`).
struct BundleLayout {
  enum class Shape {
    contents,   ///< X.app/Contents/…
    framework,  ///< X.framework/Versions/<current>/…
    flat,       ///< everything in the bundle's own folder
  };

  /// The bundle in the folder open at `root`, of that name. errSecCSBadBundleFormat when it has neither an executable
  /// nor an Info.plist, or is arranged in no such way.
  static Result<BundleLayout> open(posix::FileDescriptor root, const std::string& name);
  /// One version of a framework, given the open folder of that version.
  static Result<BundleLayout> openVersion(posix::FileDescriptor version, const std::string& frameworkName);

  /// errSecCSUnsealedAppRoot or errSecCSUnsealedFrameworkRoot when the bundle's folder has anything that the signature
  /// does not reach: there may be only the folder that is sealed, links into it and the Finder's own files.
  [[nodiscard]] Result<void> checkRoot() const;

  /// The versions of a framework besides the current one.
  [[nodiscard]] Result<std::vector<std::string>> otherVersions() const;

  Shape shape;
  posix::FileDescriptor root;
  posix::FileDescriptor sealedRoot;  ///< paths in the seal count from here
  std::string currentVersion;        ///< of a framework
  std::optional<Bytes> infoPlist;    ///< the file's bytes
  /// The executable, below the sealed root. A bundle without one has its Info.plist for it.
  std::string executablePath;
  InputFile executable;
};

/// The dictionary in the bytes of an Info.plist; empty when it is none.
[[nodiscard]] PropertyList infoDictionary(const std::optional<Bytes>& infoPlist);

}  // namespace platform::codesignature
