#include "Campaign/SupervisedProgram.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <stdexcept>

#include <fmt/format.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace campaign {
namespace {

/// From here on each system call of the calling thread, and of what it starts, waits for the listener that is returned.
int listenToOwnCalls() {
  sock_filter notify = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
  sock_fprog program{.len = 1, .filter = &notify};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
}

}  // namespace

std::string SystemCall::bytesAt(std::size_t argument, std::size_t count) const {
  std::string bytes(count, '\0');
  const iovec here{.iov_base = bytes.data(), .iov_len = bytes.size()};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of the other process
  const iovec there{.iov_base = reinterpret_cast<void*>(arguments.at(argument)), .iov_len = count};
  const ssize_t read = process_vm_readv(process, &here, 1, &there, 1, 0);
  bytes.resize(read < 0 ? 0 : static_cast<std::size_t>(read));
  return bytes;
}

std::string SystemCall::textAt(std::size_t argument) const {
  // Up to the end of the page first: what follows need not be there.
  constexpr std::size_t page = 4096;
  std::string text = bytesAt(argument, page - arguments.at(argument) % page);
  if (text.find('\0') == std::string::npos) text = bytesAt(argument, PATH_MAX);
  return text.substr(0, text.find('\0'));
}

std::string SystemCall::describe(std::uint64_t descriptor) const {
  std::array<char, PATH_MAX> target{};
  const std::string link = fmt::format("/proc/{}/fd/{}", process, static_cast<int>(descriptor));
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  return {target.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

SupervisedProgram::SupervisedProgram(const rehearsal::Scene::Command& command, Judge judge)
    : mark_(command.environment.at(0)) {
  // The filter is of one thread, which starts the program and ends; its own last calls are let through like the rest.
  std::atomic<int> listener = -2;
  std::jthread starter([&] {
    listener = listenToOwnCalls();
    if (listener >= 0) start(command);
  });
  while (listener == -2) std::this_thread::yield();
  if (listener < 0) throw std::runtime_error("system calls cannot be supervised here");
  listener_ = platform::posix::FileDescriptor(listener);
  supervisor_ = std::jthread([this, judge = std::move(judge)] { supervise(judge); });
  starter.join();
  if (!program_) throw std::runtime_error("cannot start " + command.executable.string());
}

SupervisedProgram::~SupervisedProgram() {
  killAll();
  program_.reset();
}

void SupervisedProgram::start(const rehearsal::Scene::Command& command) {
  try {
    program_.emplace(command.executable, command.arguments, command.environment);
  } catch (const std::runtime_error&) {  // told by the constructor
  }
}

void SupervisedProgram::killAll() {
  isToEnd_ = true;
  const std::lock_guard lock(mutex_);
  for (const auto& [thread, process] : processes_) killIfOurs(process);
}

void SupervisedProgram::killIfOurs(pid_t process) const {
  std::ifstream file(fmt::format("/proc/{}/environ", process));
  const std::string environment{std::istreambuf_iterator<char>(file), {}};
  if (process != getpid() && environment.find(mark_) != std::string::npos) kill(process, SIGKILL);
}

pid_t SupervisedProgram::processOf(pid_t thread) {
  const std::lock_guard lock(mutex_);
  const auto [known, isNew] = processes_.try_emplace(thread, thread);
  if (isNew) {
    std::ifstream status(fmt::format("/proc/{}/status", thread));
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("Tgid:")) known->second = std::stoi(line.substr(line.find('\t')));
    }
    if (itself_ == 0 && known->second != getpid()) itself_ = known->second;
  }
  return known->second;
}

void SupervisedProgram::supervise(const Judge& judge) {
  while (true) {
    pollfd wait{.fd = listener_.get(), .events = POLLIN, .revents = 0};
    if (poll(&wait, 1, -1) < 0 && errno != EINTR) return;
    if ((wait.revents & POLLIN) == 0) {
      if ((wait.revents & POLLHUP) != 0) return;  // nobody is left
      continue;
    }
    seccomp_notif call{};
    if (ioctl(listener_.get(), SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) continue;  // it was killed meanwhile
    SystemCall judged{.process = processOf(static_cast<pid_t>(call.pid)), .thread = static_cast<pid_t>(call.pid)};
    judged.isOfProgram = judged.process == itself_;
    judged.number = call.data.nr;
    std::ranges::copy(call.data.args, judged.arguments.begin());
    const int error = judged.process == getpid() ? 0 : judge(*this, judged);
    if (isToEnd_) killIfOurs(judged.process);
    seccomp_notif_resp answer{.id = call.id, .val = 0, .error = -error, .flags = 0};
    if (error == 0) answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    ioctl(listener_.get(), SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }
}

}  // namespace campaign
