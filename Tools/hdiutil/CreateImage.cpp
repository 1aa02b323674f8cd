#include "hdiutil/CreateImage.h"

#include "Posix/FileDescriptor.h"
#include "Support/ErrorText.h"
#include "hdiutil/HfsVolumeStream.h"
#include "hdiutil/UdifWriter.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

int create(const ImageCreation& creation) {
  struct stat status{};
  if (stat(creation.sourceFolder.c_str(), &status) != 0) return errno;
  if (!S_ISDIR(status.st_mode)) return ENOTDIR;
  if (creation.volumeName.size() > HfsVolumeStream::longestName) return ENAMETOOLONG;
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
  if (const int failure = create(creation); failure != 0) return std::unexpected(errorText(failure));
  return {};
}

}  // namespace tools
