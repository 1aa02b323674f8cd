#include "hdiutil/CreateImage.h"

#include "Posix/FileDescriptor.h"
#include "Support/ErrorText.h"
#include "hdiutil/HfsVolumeStream.h"
#include "hdiutil/UdifWriter.h"

#include <cerrno>
#include <cstdlib>
#include <expected>
#include <filesystem>
#include <memory>
#include <set>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utf8proc.h>

namespace tools {
namespace {

using platform::posix::FileDescriptor;

/// A file beside the output that becomes the output when it is complete, and is removed otherwise.
class UnfinishedFile {
 public:
  explicit UnfinishedFile(const std::string& output) : output_(output), path_(output + ".XXXXXX") {
    file_ = FileDescriptor(mkostemp(path_.data(), O_CLOEXEC));
    failure_ = file_ ? 0 : errno;
  }
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;
  ~UnfinishedFile() {
    if (!path_.empty()) unlink(path_.c_str());
  }

  [[nodiscard]] int failure() const { return failure_; }
  [[nodiscard]] int descriptor() const { return file_.get(); }

  /// Returns 0 or the errno.
  int complete() {
    const mode_t mask = umask(0);
    umask(mask);
    if (fchmod(file_.get(), 0666 & ~mask) != 0 || fsync(file_.get()) != 0) return errno;
    if (rename(path_.c_str(), output_.c_str()) != 0) return errno;
    path_.clear();
    return 0;
  }

 private:
  std::string output_;
  std::string path_;
  FileDescriptor file_;
  int failure_ = 0;
};

int writeImage(HfsVolumeStream& volume, int descriptor) {
  UdifWriter image(descriptor);
  std::vector<char> chunk(UdifWriter::chunkBytes);
  while (true) {
    const auto count = volume.read(chunk);
    if (!count) return count.error();
    if (*count == 0) break;
    if (const int failure = image.append(std::span(chunk).first(*count)); failure != 0) return failure;
  }
  if (const int failure = volume.finish(); failure != 0) return failure;
  return image.finish();
}

/// Whether an HFS+ volume can hold this folder as it is: names of UTF-8 without ":", which such a volume keeps for
/// itself, and no two of a folder alike but for case. The program that makes the volume would alter them and say
/// nothing.
bool canHold(const std::filesystem::path& folder) {
  std::set<std::string> names;  // of one folder, folded
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    utf8proc_uint8_t* folded = nullptr;
    utf8proc_map(
        reinterpret_cast<const utf8proc_uint8_t*>(name.data()), static_cast<utf8proc_ssize_t>(name.size()), &folded,
        static_cast<utf8proc_option_t>(UTF8PROC_NULLTERM | UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_CASEFOLD));
    const std::unique_ptr<utf8proc_uint8_t, decltype(&free)> owned(folded, &free);
    if (folded == nullptr || name.contains(':')) return false;
    if (!names.insert(reinterpret_cast<const char*>(folded)).second) return false;
    if (entry.is_directory() && !entry.is_symlink() && !canHold(entry.path())) return false;
  }
  return true;
}

bool liesWithin(const std::filesystem::path& path, const std::filesystem::path& folder) {
  const auto relative = std::filesystem::weakly_canonical(path).lexically_relative(std::filesystem::canonical(folder));
  return !relative.empty() && *relative.begin() != "..";
}

int create(const ImageCreation& creation) {
  struct stat status{};
  if (stat(creation.sourceFolder.c_str(), &status) != 0) return errno;
  if (!S_ISDIR(status.st_mode)) return ENOTDIR;
  if (creation.volumeName.size() > HfsVolumeStream::longestName) return ENAMETOOLONG;
  const bool isFolderName = creation.volumeName == "." || creation.volumeName == "..";
  if (isFolderName || creation.volumeName.contains('/') || liesWithin(creation.output, creation.sourceFolder)) {
    return EINVAL;
  }
  if (!canHold(creation.sourceFolder)) return EILSEQ;
  if (!creation.overwrite && lstat(creation.output.c_str(), &status) == 0) return EEXIST;
  UnfinishedFile file(creation.output);
  if (file.failure() != 0) return file.failure();
  auto volume = HfsVolumeStream::open(std::filesystem::absolute(creation.sourceFolder), creation.volumeName);
  if (!volume) return volume.error();
  if (const int failure = writeImage(*volume, file.descriptor()); failure != 0) return failure;
  return file.complete();
}

}  // namespace

std::expected<void, std::string> createImage(const ImageCreation& creation) {
  try {
    if (const int failure = create(creation); failure != 0) return std::unexpected(errorText(failure));
    return {};
  } catch (const std::filesystem::filesystem_error& error) {
    return std::unexpected(errorText(error.code().value()));
  }
}

}  // namespace tools
