#include "Posix/FileTree.h"

#include "Posix/FileDescriptor.h"

#include <array>
#include <cerrno>
#include <climits>
#include <expected>
#include <memory>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace platform::posix {
namespace {

/// A level costs two descriptors in a copy; the deepest path a system call takes has some two thousand levels, an
/// application bundle has a dozen.
constexpr int maximumDepth = 200;

struct DirectoryClose {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryClose>;

Directory openDirectory(int parent, const char* name) {
  const int descriptor = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (descriptor < 0) return nullptr;
  Directory directory(fdopendir(descriptor));
  if (directory == nullptr) close(descriptor);
  return directory;
}

/// The names in a directory, all read before any is used, or the errno that prevented it.
std::expected<std::vector<std::string>, int> names(DIR* directory) {
  std::vector<std::string> result;
  while (true) {
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a stream of our own
    const dirent* entry = readdir(directory);
    if (entry == nullptr && errno != 0) return std::unexpected(errno);
    if (entry == nullptr) return result;
    const std::string name = static_cast<const char*>(entry->d_name);
    if (name != "." && name != "..") result.push_back(name);
  }
}

/// "user.…" attributes alone: others are the system's, or need privileges.
int copyAttributes(int from, int to) {
  std::string list(static_cast<std::size_t>(XATTR_LIST_MAX), '\0');
  const ssize_t length = flistxattr(from, list.data(), list.size());
  if (length < 0 && errno != ENOTSUP) return errno;
  if (length <= 0) return 0;  // none, or a file system without
  list.resize(static_cast<std::size_t>(length));
  std::string value(static_cast<std::size_t>(XATTR_SIZE_MAX), '\0');
  for (std::size_t start = 0; start < list.size(); start = list.find('\0', start) + 1) {
    const char* name = list.data() + start;
    if (!std::string_view(name).starts_with("user.")) continue;
    const ssize_t size = fgetxattr(from, name, value.data(), value.size());
    if (size < 0) return errno;
    if (fsetxattr(to, name, value.data(), static_cast<std::size_t>(size), 0) != 0 && errno != ENOTSUP) return errno;
  }
  return 0;
}

int copyMetadata(int from, int to, const struct stat& status) {
  if (const int failure = copyAttributes(from, to); failure != 0) return failure;
  if (fchmod(to, status.st_mode & ~static_cast<mode_t>(S_IFMT | S_ISUID | S_ISGID)) != 0) return errno;
  const std::array<timespec, 2> times{status.st_atim, status.st_mtim};
  return futimens(to, times.data()) == 0 ? 0 : errno;
}

int copyByReading(int from, int to) {
  std::string chunk(std::size_t{1} << 20U, '\0');
  while (true) {
    const ssize_t count = read(from, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return count < 0 ? errno : 0;
    for (ssize_t done = 0; done < count;) {
      const ssize_t written = write(to, chunk.data() + done, static_cast<std::size_t>(count - done));
      if (written < 0 && errno != EINTR) return errno;
      if (written > 0) done += written;
    }
  }
}

int copyFile(int fromFolder, const char* fromName, int toFolder, const char* toName) {
  const FileDescriptor from(openat(fromFolder, fromName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  if (!from) return errno;
  struct stat status{};
  if (fstat(from.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return ENOTSUP;  // exchanged since it was looked at
  const FileDescriptor to(openat(toFolder, toName, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!to) return errno;
  if (const int failure = copyBytes(from.get(), to.get()); failure != 0) return failure;
  return copyMetadata(from.get(), to.get(), status);
}

int copyLink(int fromFolder, const char* fromName, int toFolder, const char* toName, const struct stat& status) {
  std::array<char, PATH_MAX> text{};
  const ssize_t length = readlinkat(fromFolder, fromName, text.data(), text.size() - 1);
  if (length < 0) return errno;
  if (symlinkat(text.data(), toFolder, toName) != 0) return errno;
  const std::array<timespec, 2> times{status.st_atim, status.st_mtim};
  return utimensat(toFolder, toName, times.data(), AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

int copyEntry(int fromFolder, const char* fromName, int toFolder, const char* toName, int depth);

int copyFolder(int fromFolder, const char* fromName, int toFolder, const char* toName, int depth) {
  if (depth > maximumDepth) return ENAMETOOLONG;
  const Directory from = openDirectory(fromFolder, fromName);
  if (from == nullptr) return errno;
  struct stat status{};
  if (fstat(dirfd(from.get()), &status) != 0) return errno;
  // Writable while it is being filled, whatever it is to be in the end.
  if (mkdirat(toFolder, toName, 0700) != 0) return errno;
  const FileDescriptor to(openat(toFolder, toName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!to) return errno;
  const auto entries = names(from.get());
  if (!entries) return entries.error();
  for (const std::string& name : *entries) {
    const int failure = copyEntry(dirfd(from.get()), name.c_str(), to.get(), name.c_str(), depth + 1);
    if (failure != 0) return failure;
  }
  return copyMetadata(dirfd(from.get()), to.get(), status);
}

int copyEntry(int fromFolder, const char* fromName, int toFolder, const char* toName, int depth) {
  struct stat status{};
  if (fstatat(fromFolder, fromName, &status, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return copyFolder(fromFolder, fromName, toFolder, toName, depth);
  if (S_ISLNK(status.st_mode)) return copyLink(fromFolder, fromName, toFolder, toName, status);
  if (S_ISREG(status.st_mode)) return copyFile(fromFolder, fromName, toFolder, toName);
  return ENOTSUP;
}

int removeEntry(int folder, const char* name, dev_t device, int depth);

int removeFolder(int folder, const char* name, dev_t device, int depth) {
  if (depth > maximumDepth) return ENAMETOOLONG;
  {
    const Directory directory = openDirectory(folder, name);
    if (directory == nullptr) return errno;
    const auto entries = names(directory.get());
    if (!entries) return entries.error();
    for (const std::string& entry : *entries) {
      const int failure = removeEntry(dirfd(directory.get()), entry.c_str(), device, depth + 1);
      if (failure != 0 && failure != ENOENT && failure != ENOTDIR) return failure;
    }
  }
  if (unlinkat(folder, name, AT_REMOVEDIR) == 0) return 0;
  return errno == ENOTEMPTY ? EPERM : errno;
}

int removeEntry(int folder, const char* name, dev_t device, int depth) {
  struct stat status{};
  if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (!S_ISDIR(status.st_mode)) return unlinkat(folder, name, 0) == 0 ? 0 : errno;
  if (status.st_dev != device) return 0;  // mounted here; the folder it is mounted in will not go
  return removeFolder(folder, name, device, depth);
}

}  // namespace

int copyBytes(int from, int to) {
  if (ioctl(to, FICLONE, from) == 0) return 0;
  bool copiedAny = false;
  while (true) {
    const ssize_t count = copy_file_range(from, nullptr, to, nullptr, std::size_t{1} << 30U, 0);
    if (count == 0) return 0;
    if (count > 0) {
      copiedAny = true;
    } else if (errno != EINTR) {
      const bool unsupported = errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
      return unsupported && !copiedAny ? copyByReading(from, to) : errno;
    }
  }
}

int copyTree(const std::string& from, const std::string& to) {
  struct stat status{};
  if (lstat(to.c_str(), &status) == 0) return EEXIST;
  return copyEntry(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), 0);
}

int removeTree(const std::string& path) {
  struct stat status{};
  if (lstat(path.c_str(), &status) != 0) return errno;
  return removeEntry(AT_FDCWD, path.c_str(), status.st_dev, 0);
}

}  // namespace platform::posix
