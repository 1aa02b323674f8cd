#include "CodeSignature/DirectoryListing.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::codesignature {
namespace {

constexpr std::size_t maximumEntries = 1'000'000;

struct DirectoryClose {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

DirectoryEntry::Kind kindOf(mode_t mode) {
  if (S_ISREG(mode)) return DirectoryEntry::Kind::file;
  if (S_ISDIR(mode)) return DirectoryEntry::Kind::directory;
  return S_ISLNK(mode) ? DirectoryEntry::Kind::link : DirectoryEntry::Kind::other;
}

}  // namespace

Result<std::vector<DirectoryEntry>> directoryEntries(int directory) {
  // A descriptor of its own, so that the caller's keeps its position.
  const int copy = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (copy < 0) return failed(statusOfErrno(errno));
  const std::unique_ptr<DIR, DirectoryClose> stream(::fdopendir(copy));
  if (!stream) return failed(statusOfErrno(errno));
  std::vector<DirectoryEntry> entries;
  while (true) {
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread reads this stream.
    const dirent* entry = ::readdir(stream.get());
    if (entry == nullptr) break;
    const std::string_view name = static_cast<const char*>(entry->d_name);
    if (name == "." || name == "..") continue;
    struct stat status = {};
    if (::fstatat(directory, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return failed(statusOfErrno(errno));
    constexpr mode_t anyExecute = S_IXUSR | S_IXGRP | S_IXOTH;
    entries.push_back({std::string(name), kindOf(status.st_mode), (status.st_mode & anyExecute) != 0});
    if (entries.size() > maximumEntries) return failed(statusOfErrno(E2BIG));
  }
  if (errno != 0) return failed(statusOfErrno(errno));
  std::ranges::sort(entries, {}, &DirectoryEntry::name);
  return entries;
}

Result<posix::FileDescriptor> openFolder(int directory, const std::string& name) {
  posix::FileDescriptor folder(::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder) return failed(statusOfErrno(errno));
  return folder;
}

Result<posix::FileDescriptor> openBeneath(int directory, const std::string& path, int flags) {
  posix::FileDescriptor parent;
  std::size_t begin = 0;
  for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', begin)) {
    auto next = openFolder(parent ? parent.get() : directory, path.substr(begin, slash - begin));
    if (!next) return next;
    parent = std::move(*next);
    begin = slash + 1;
  }
  const std::string name = path.substr(begin);
  posix::FileDescriptor opened(
      ::openat(parent ? parent.get() : directory, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
  if (!opened) return failed(statusOfErrno(errno));
  return opened;
}

Result<std::string> linkText(int directory, const std::string& name) {
  std::array<char, PATH_MAX> text = {};
  const ssize_t length = ::readlinkat(directory, name.c_str(), text.data(), text.size());
  if (length < 0) return failed(statusOfErrno(errno));
  return std::string(text.data(), static_cast<std::size_t>(length));
}

}  // namespace platform::codesignature
