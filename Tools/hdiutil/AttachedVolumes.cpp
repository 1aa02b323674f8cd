#include "hdiutil/AttachedVolumes.h"

#include "Posix/RegularFile.h"

#include <cerrno>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {

bool AttachedVolumes::contains(const std::string& mountPoint) const {
  const std::string path = record(mountPoint);
  struct stat status{};
  // In a temporary directory that is shared, a record of somebody else says nothing.
  return !path.empty() && lstat(path.c_str(), &status) == 0 && status.st_uid == geteuid();
}

int AttachedVolumes::add(const std::string& mountPoint) const {
  const std::string path = record(mountPoint);
  if (path.empty()) return ENOENT;
  if (const int failure = platform::posix::makeFolders(folder_, 0700); failure != 0) return failure;
  return platform::posix::replaceFile(path, mountPoint + "\n");
}

void AttachedVolumes::remove(const std::string& record) const {
  unlink(record.c_str());
  rmdir(folder_.c_str());  // the last one leaves nothing behind
}

std::string AttachedVolumes::record(const std::string& mountPoint) const {
  struct statx status{};
  const unsigned wanted = STATX_TYPE | STATX_INO | STATX_BTIME;
  if (statx(AT_FDCWD, mountPoint.c_str(), AT_SYMLINK_NOFOLLOW, wanted, &status) != 0) return {};
  if (!S_ISDIR(status.stx_mode)) return {};
  return fmt::format("{}/{}.{}-{}-{}.{:09}", folder_, status.stx_dev_major, status.stx_dev_minor, status.stx_ino,
                     status.stx_btime.tv_sec, status.stx_btime.tv_nsec);
}

}  // namespace tools
