#pragma once

#include "Posix/FileDescriptor.h"

#include <expected>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace tools {

/// A program of the machine at work for a tool, its output read while it runs.
///
/// It is found in PATH and started without a shell, in a UTF-8 locale, with a file mode mask of zero and default signal
/// handling. It gets its input, its output and nothing else; what it says on standard error is dropped. It dies with
/// its starter, and is ended when this object goes away before finish(). For programs with a single thread.
class ChildProgram {
 public:
  struct Start {
    std::vector<std::string> words;  ///< the program and its arguments
    int input = -1;                  ///< becomes its standard input; -1 for /dev/null
    int outputAs = 1;                ///< the descriptor under which it finds the pipe that output() reads
    std::string workingFolder;       ///< empty for the starter's own
  };

  /// The running program or the errno. A program that does not exist starts and finishes with status 127.
  static std::expected<ChildProgram, int> start(const Start& start);

  ChildProgram(ChildProgram&& other) noexcept;
  ChildProgram& operator=(ChildProgram&&) = delete;
  ~ChildProgram();

  /// Fills `buffer` as far as the output goes; the count is short only at its end.
  std::size_t read(std::span<char> buffer);

  /// Hands on the output, line by line, without the line feeds.
  void forEachLine(const std::function<void(std::string_view)>& line);

  /// Drops what output is left and waits. The exit status; 128 + the number of a signal that ended it.
  int finish();

 private:
  ChildProgram(pid_t process, platform::posix::FileDescriptor output) : process_(process), output_(std::move(output)) {}

  pid_t process_;
  platform::posix::FileDescriptor output_;
};

/// The status of a program that could not be found.
inline constexpr int notFoundStatus = 127;

}  // namespace tools
