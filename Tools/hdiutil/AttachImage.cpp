#include "hdiutil/AttachImage.h"

#include "Posix/RegularFile.h"
#include "Support/ErrorText.h"
#include "hdiutil/VolumeImage.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace tools {
namespace {

namespace fs = std::filesystem;

/// Empties a folder. Folders may come from an image with permissions that forbid it; links are removed, not followed.
std::error_code removeContents(const std::string& folder) {
  std::error_code error;
  fs::permissions(folder, fs::perms::owner_all, fs::perm_options::add, error);
  for (fs::recursive_directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (!fs::is_directory(entry->symlink_status(error))) continue;
    fs::permissions(entry->path(), fs::perms::owner_all, fs::perm_options::add, error);
  }
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    fs::remove_all(entry->path(), error);
  }
  return error;
}

/// The folder at which a volume appears. It is made, recorded as attached, and put back as it was unless kept.
class MountPoint {
 public:
  MountPoint(std::string path, const AttachedVolumes& attached) : path_(std::move(path)), attached_(attached) {
    const fs::path parent = fs::path(path_).parent_path();
    std::error_code error;
    for (fs::path folder = parent; !folder.empty() && !fs::exists(folder, error); folder = folder.parent_path()) {
      madeParents_.push_back(folder);
    }
    if (!madeParents_.empty()) platform::posix::makeFolders(parent, 0755);
    isMade_ = mkdir(path_.c_str(), 0755) == 0;
    failure_ = isMade_ ? 0 : existingFailure();
    if (failure_ == 0) failure_ = attached_.add(path_);
    isRecorded_ = failure_ == 0;
  }
  MountPoint(const MountPoint&) = delete;
  MountPoint& operator=(const MountPoint&) = delete;
  ~MountPoint() {
    const std::string record = attached_.record(path_);
    if (isRecorded_) [[maybe_unused]]
      const std::error_code ignored = removeContents(path_);
    if (isMade_) rmdir(path_.c_str());
    for (const fs::path& folder : madeParents_) rmdir(folder.c_str());
    if (isRecorded_) attached_.remove(record);
  }

  [[nodiscard]] int failure() const { return failure_; }
  void keep() {
    isMade_ = isRecorded_ = false;
    madeParents_.clear();
  }

 private:
  [[nodiscard]] int existingFailure() const {
    const int failure = errno;
    std::error_code error;
    if (failure != EEXIST) return failure;
    if (!fs::is_directory(fs::symlink_status(path_, error))) return ENOTDIR;
    return fs::is_empty(path_, error) && !error ? 0 : EBUSY;
  }

  std::string path_;
  const AttachedVolumes& attached_;
  std::vector<fs::path> madeParents_;  // the innermost first
  bool isMade_ = false;
  bool isRecorded_ = false;
  int failure_ = 0;
};

bool hasRoomFor(const VolumeImage& volume, const std::string& folder) {
  struct statvfs disk{};
  if (statvfs(folder.c_str(), &disk) != 0) return false;
  const bool hasBytes = volume.totalBytes() / disk.f_frsize < disk.f_bavail;
  return hasBytes && (disk.f_files == 0 || volume.fileCount() < disk.f_favail);
}

/// The folders in which HFS+ keeps its own data, which a mounted volume does not show.
bool isPrivate(std::string_view name) {
  return name.find("HFS+ Private Data") != std::string_view::npos || name.starts_with(".HFS+ Private Directory Data") ||
         name == ".journal" || name == ".journal_info_block";
}

/// 7-Zip puts the contents of an HFS+ volume below a folder that is called after it.
fs::path rootOfVolume(const fs::path& folder, bool isHfs) {
  std::vector<fs::path> entries;
  for (const auto& entry : fs::directory_iterator(folder)) entries.push_back(entry.path());
  return isHfs && entries.size() == 1 && fs::is_directory(fs::symlink_status(entries[0])) ? entries[0] : folder;
}

/// A folder can be moved only while its owner may write to it.
void move(const fs::path& from, const fs::path& to) {
  const fs::file_status status = fs::symlink_status(from);
  if (fs::is_directory(status)) fs::permissions(from, fs::perms::owner_all, fs::perm_options::add);
  fs::rename(from, to);
  if (fs::is_directory(status)) fs::permissions(to, status.permissions());
}

void moveContents(const fs::path& root, const fs::path& destination) {
  fs::permissions(root, fs::perms::owner_all, fs::perm_options::add);
  std::vector<fs::path> entries;
  for (const auto& entry : fs::directory_iterator(root)) entries.push_back(entry.path());
  for (const fs::path& entry : entries) {
    if (!isPrivate(entry.filename().native())) move(entry, destination / entry.filename());
  }
}

/// Extracts in a folder of its own inside the mount point: not yet checked, a file must not meet what is there already.
bool populate(const std::string& mountPoint, const VolumeImage& volume) {
  std::string folder = mountPoint + "/.volume.XXXXXX";
  if (mkdtemp(folder.data()) == nullptr || !volume.extract(folder)) return false;
  try {
    const fs::path root = rootOfVolume(folder, volume.isHfs());
    const fs::perms permissions = root == folder ? fs::perms{0755} : fs::status(root).permissions();
    moveContents(root, mountPoint);
    if (removeContents(folder) || rmdir(folder.c_str()) != 0) return false;
    fs::permissions(mountPoint, permissions);
  } catch (const fs::filesystem_error&) {
    return false;
  }
  return true;
}

}  // namespace

std::expected<std::string, std::string> attachImage(const ImageAttachment& attachment,
                                                    const AttachedVolumes& attached) {
  const auto volume = VolumeImage::open(attachment.image);
  if (!volume) return std::unexpected(volume.error());
  if (attachment.verify && !volume->hasIntactChecksums()) return std::unexpected("corrupt image");
  MountPoint mountPoint(attachment.mountPoint, attached);
  if (mountPoint.failure() != 0) return std::unexpected(errorText(mountPoint.failure()));
  if (!hasRoomFor(*volume, attachment.mountPoint)) return std::unexpected(errorText(ENOSPC));
  if (!populate(attachment.mountPoint, *volume)) return std::unexpected("no mountable file systems");
  mountPoint.keep();
  return volume->isHfs() ? "Apple_HFS" : "Apple_APFS";
}

int detachImage(const std::string& mountPoint, const AttachedVolumes& attached) {
  if (!attached.contains(mountPoint)) return ENOENT;
  const std::string record = attached.record(mountPoint);
  if (removeContents(mountPoint) || rmdir(mountPoint.c_str()) != 0) return EBUSY;
  attached.remove(record);
  return 0;
}

}  // namespace tools
