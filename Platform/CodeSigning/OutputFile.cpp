#include "CodeSigning/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::codesigning {

using codesignature::Bytes;
using codesignature::ByteView;
using codesignature::InputFile;

namespace {

std::unexpected<std::string> systemError(const std::string& path) {
  return std::unexpected(path + ": " + std::strerror(errno));
}

}  // namespace

Signed<OutputFile> OutputFile::create(const std::string& path) {
  std::string temporaryPath = path + ".XXXXXX";
  posix::FileDescriptor descriptor(::mkostemp(temporaryPath.data(), O_CLOEXEC));
  if (!descriptor) return systemError(path);
  return OutputFile(std::move(descriptor), path, std::move(temporaryPath));
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : descriptor_(std::move(other.descriptor_)),
      path_(std::move(other.path_)),
      temporaryPath_(std::exchange(other.temporaryPath_, {})),
      size_(other.size_) {}

OutputFile::~OutputFile() {
  if (!temporaryPath_.empty()) ::unlink(temporaryPath_.c_str());
}

Signed<void> OutputFile::append(ByteView bytes) {
  return write(size_, bytes);
}

Signed<void> OutputFile::append(const InputFile& file, std::uint64_t offset, std::uint64_t length) {
  constexpr std::uint64_t pieceSize = std::uint64_t{1} << 20U;
  while (length > 0) {
    const auto piece = file.bytes(offset, std::min(length, pieceSize));
    if (!piece) return std::unexpected(path_ + ": the original cannot be read");
    if (auto done = append(*piece); !done) return done;
    offset += piece->size();
    length -= piece->size();
  }
  return {};
}

Signed<void> OutputFile::write(std::uint64_t offset, ByteView bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::pwrite(descriptor_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return systemError(path_);
    bytes = bytes.subspan(static_cast<std::size_t>(count));
    offset += static_cast<std::uint64_t>(count);
  }
  size_ = std::max(size_, offset);
  return {};
}

Signed<InputFile> OutputFile::reader() const {
  auto file = InputFile::adopt(posix::FileDescriptor(::fcntl(descriptor_.get(), F_DUPFD_CLOEXEC, 0)));
  if (!file) return std::unexpected(path_ + ": what was written cannot be read");
  return std::move(*file);
}

Signed<void> OutputFile::commit(mode_t mode) {
  if (::fchmod(descriptor_.get(), mode) != 0 || ::rename(temporaryPath_.c_str(), path_.c_str()) != 0) {
    return systemError(path_);
  }
  temporaryPath_.clear();
  return {};
}

}  // namespace platform::codesigning
