#include "CodeSignature/InputFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::codesignature {

Result<InputFile> InputFile::open(int directory, const std::string& path, Links links) {
  // Without O_NONBLOCK the open of a FIFO would wait for a writer.
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | (links == Links::refuse ? O_NOFOLLOW : 0);
  posix::FileDescriptor descriptor(::openat(directory, path.c_str(), flags));
  if (!descriptor) return failed(errno == ELOOP ? OSStatus{errSecCSRegularFile} : statusOfErrno(errno));
  return adopt(std::move(descriptor));
}

Result<InputFile> InputFile::adopt(posix::FileDescriptor descriptor) {
  struct stat status = {};
  if (::fstat(descriptor.get(), &status) != 0) return failed(statusOfErrno(errno));
  if (!S_ISREG(status.st_mode)) return failed(errSecCSRegularFile);
  return InputFile(std::move(descriptor), static_cast<std::uint64_t>(status.st_size), status.st_dev, status.st_ino);
}

bool InputFile::isSameFile(const InputFile& other) const {
  return device_ == other.device_ && node_ == other.node_;
}

Result<void> InputFile::read(std::uint64_t offset, std::span<std::uint8_t> buffer) const {
  if (offset > size_ || buffer.size() > size_ - offset) return failed(statusOfErrno(EIO));
  while (!buffer.empty()) {
    const ssize_t count = ::pread(descriptor_.get(), buffer.data(), buffer.size(), static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    // A file that became shorter after it was opened.
    if (count <= 0) return failed(statusOfErrno(count < 0 ? errno : EIO));
    buffer = buffer.subspan(static_cast<std::size_t>(count));
    offset += static_cast<std::uint64_t>(count);
  }
  return {};
}

Result<Bytes> InputFile::bytes(std::uint64_t offset, std::uint64_t length) const {
  if (offset > size_ || length > size_ - offset) return failed(statusOfErrno(EIO));
  Bytes buffer(static_cast<std::size_t>(length));
  if (auto done = read(offset, buffer); !done) return std::unexpected(done.error());
  return buffer;
}

Result<Bytes> InputFile::contents(std::uint64_t maximum) const {
  if (size_ > maximum) return failed(statusOfErrno(EFBIG));
  return bytes(0, size_);
}

}  // namespace platform::codesignature
