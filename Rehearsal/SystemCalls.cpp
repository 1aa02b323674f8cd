#include "Rehearsal/SystemCalls.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <iterator>
#include <thread>

#include <fmt/format.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace rehearsal {
namespace {

using platform::posix::FileDescriptor;

struct NamedCall {
  int number;
  const char* name;
};

constexpr NamedCall namedFileSystemCalls[] = {
    {SYS_openat, "openat"},
    {SYS_newfstatat, "fstatat"},
    {SYS_statx, "statx"},
    {SYS_faccessat, "faccessat"},
    {SYS_faccessat2, "faccessat2"},
    {SYS_mkdirat, "mkdirat"},
    {SYS_unlinkat, "unlinkat"},
    {SYS_renameat, "renameat"},
    {SYS_renameat2, "renameat2"},
    {SYS_symlinkat, "symlinkat"},
    {SYS_readlinkat, "readlinkat"},
    {SYS_fchmodat, "fchmodat"},
    {SYS_fchmod, "fchmod"},
    {SYS_utimensat, "utimensat"},
    {SYS_getdents64, "getdents64"},
    {SYS_copy_file_range, "copy_file_range"},
    {SYS_read, "read"},
    {SYS_pread64, "pread"},
    {SYS_write, "write"},
    {SYS_pwrite64, "pwrite"},
    {SYS_fsync, "fsync"},
    {SYS_ftruncate, "ftruncate"},
    {SYS_flistxattr, "flistxattr"},
    {SYS_fgetxattr, "fgetxattr"},
    {SYS_fsetxattr, "fsetxattr"},
    {SYS_statfs, "statfs"},
#ifdef SYS_open  // the older calls, which newer machines are without
    {SYS_open, "open"},
    {SYS_stat, "stat"},
    {SYS_lstat, "lstat"},
    {SYS_access, "access"},
    {SYS_mkdir, "mkdir"},
    {SYS_rmdir, "rmdir"},
    {SYS_unlink, "unlink"},
    {SYS_rename, "rename"},
    {SYS_symlink, "symlink"},
    {SYS_readlink, "readlink"},
    {SYS_chmod, "chmod"},
#endif
};

}  // namespace

const std::vector<int>& fileSystemCalls() {
  static const std::vector<int> numbers = [] {
    std::vector<int> all;
    for (const NamedCall& call : namedFileSystemCalls) all.push_back(call.number);
    return all;
  }();
  return numbers;
}

std::string fileSystemCallName(int number) {
  const auto* known = std::ranges::find(namedFileSystemCalls, number, &NamedCall::number);
  return known == std::end(namedFileSystemCalls) ? std::to_string(number) : known->name;
}

std::string SystemCall::bytesAt(std::size_t argument, std::size_t count) const {
  std::string bytes(count, '\0');
  const iovec here{.iov_base = bytes.data(), .iov_len = bytes.size()};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of the other process
  const iovec there{.iov_base = reinterpret_cast<void*>(arguments.at(argument)), .iov_len = count};
  const ssize_t read = process_vm_readv(thread, &here, 1, &there, 1, 0);
  bytes.resize(read < 0 ? 0 : static_cast<std::size_t>(read));
  return bytes;
}

std::string SystemCall::textAt(std::size_t argument) const {
  // Up to the end of the page first: what follows need not be there.
  constexpr std::size_t page = 4096;
  std::string text = bytesAt(argument, page - (arguments.at(argument) % page));
  if (text.find('\0') == std::string::npos) text = bytesAt(argument, PATH_MAX);
  return text.substr(0, text.find('\0'));
}

std::string SystemCall::describe(std::uint64_t descriptor) const {
  std::array<char, PATH_MAX> target{};
  const std::string link = fmt::format("/proc/{}/fd/{}", thread, static_cast<int>(descriptor));
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  return {target.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

FileDescriptor listenToOwnCalls(const std::vector<int>& numbers) {
  std::vector<sock_filter> filter{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const int number : numbers) {
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
  }
  const std::uint32_t others = numbers.empty() ? SECCOMP_RET_USER_NOTIF : SECCOMP_RET_ALLOW;
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, others));
  sock_fprog program{.len = static_cast<unsigned short>(filter.size()), .filter = filter.data()};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  const long listener = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program);
  return FileDescriptor(static_cast<int>(listener));
}

void superviseCalls(const FileDescriptor& listener, const SystemCallJudge& judge) {
  while (true) {
    pollfd wait{.fd = listener.get(), .events = POLLIN, .revents = 0};
    if (poll(&wait, 1, -1) < 0 && errno != EINTR) return;
    if ((wait.revents & POLLIN) == 0) {
      if ((wait.revents & POLLHUP) != 0) return;
      continue;
    }
    seccomp_notif waiting{};
    if (ioctl(listener.get(), SECCOMP_IOCTL_NOTIF_RECV, &waiting) != 0) continue;  // killed meanwhile
    SystemCall call{.thread = static_cast<pid_t>(waiting.pid), .number = waiting.data.nr};
    std::ranges::copy(waiting.data.args, call.arguments.begin());
    const int error = judge(call);
    seccomp_notif_resp answer{.id = waiting.id, .val = 0, .error = -error, .flags = 0};
    if (error == 0) answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    ioctl(listener.get(), SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }
}

bool runSupervised(const std::vector<int>& numbers, const SystemCallJudge& judge, const std::function<void()>& work) {
  FileDescriptor listener;
  std::atomic_flag listens;
  const std::jthread worker([&] {
    listener = listenToOwnCalls(numbers);
    listens.test_and_set();
    listens.notify_one();
    if (listener) work();
  });
  listens.wait(false);
  if (!listener) return false;
  superviseCalls(listener, judge);
  return true;
}

}  // namespace rehearsal
