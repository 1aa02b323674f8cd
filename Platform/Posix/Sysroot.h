#pragma once

#include <string>
#include <string_view>

namespace platform::posix {

/// Where the stand-in Mac's own files lie. A Mac path is an absolute path whose first component is Applications,
/// Library, Network, System or Volumes, or one of the system tools; it names the file at sysroot + path. Every other
/// path is the machine's own and passes unchanged.
class Sysroot {
 public:
  /// `root` is an absolute path; "/" or empty for none.
  explicit Sysroot(std::string_view root);

  /// From CORVANE_SYSROOT.
  static Sysroot fromEnvironment();

  [[nodiscard]] bool isWholeMachine() const { return root_.empty(); }

  /// The file that a path names.
  [[nodiscard]] std::string machinePath(std::string_view path) const;

  /// The other way round, for paths that the machine yields: a file that a Mac path names gets that path back.
  [[nodiscard]] std::string macPath(std::string_view machinePath) const;

  /// A file beneath the sysroot that is no Mac path (`etc/connect-to`).
  [[nodiscard]] std::string beneath(std::string_view relativePath) const;

  /// Whether a resolved path of the machine lies beneath the sysroot.
  [[nodiscard]] bool contains(std::string_view machinePath) const;

 private:
  std::string root_;          // without a trailing slash; empty for "/"
  std::string resolvedRoot_;  // the same with links resolved, as /proc and realpath show it
};

/// The system tools that have a Mac path, and so a stand-in, of their own.
inline constexpr std::string_view systemTools[] = {"/usr/bin/hdiutil", "/usr/bin/xattr",    "/usr/bin/gktool",
                                                   "/usr/bin/open",    "/usr/bin/codesign", "/bin/launchctl"};

}  // namespace platform::posix
