#pragma once

#include "Posix/FileDescriptor.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace rehearsal {

/// A system call that a supervised thread, of this process or another, is about to make; it waits while it is judged.
struct SystemCall {
  pid_t thread = 0;
  int number = 0;  // SYS_…
  std::array<std::uint64_t, 6> arguments{};

  /// The bytes, at most `count`, that an argument points to.
  [[nodiscard]] std::string bytesAt(std::size_t argument, std::size_t count) const;
  /// The text up to a NUL byte that an argument points to.
  [[nodiscard]] std::string textAt(std::size_t argument) const;
  /// What a descriptor refers to, as /proc says: a path, or "socket:[…]" and the like.
  [[nodiscard]] std::string describe(std::uint64_t descriptor) const;
};

/// 0 lets a call be made; an error number is what it fails with instead. Must make none of the judged calls under a
/// lock that the supervised thread may hold.
using SystemCallJudge = std::function<int(const SystemCall&)>;

/// From here on these system calls (all, without any) of the calling thread, and of what it starts, wait for the
/// listener that is returned; empty where the kernel knows no such thing. There is no way back for the thread. It gives
/// up its right to gain privileges by exec.
platform::posix::FileDescriptor listenToOwnCalls(const std::vector<int>& numbers);

/// Answers a listener until no thread is left that waits for it.
void superviseCalls(const platform::posix::FileDescriptor& listener, const SystemCallJudge& judge);

/// Does work on a thread of its own with these system calls judged. False when that is not possible here.
bool runSupervised(const std::vector<int>& numbers, const SystemCallJudge& judge, const std::function<void()>& work);

/// The system calls by which files and folders are reached.
const std::vector<int>& fileSystemCalls();
/// The name of one of these, "openat".
std::string fileSystemCallName(int number);

}  // namespace rehearsal
