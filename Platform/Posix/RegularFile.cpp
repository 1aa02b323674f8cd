#include "Posix/RegularFile.h"

#include "Posix/FileDescriptor.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::posix {
namespace {

int writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace

std::expected<std::string, int> readRegularFile(const std::string& machinePath, std::size_t maximumBytes) {
  const FileDescriptor file(open(machinePath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return std::unexpected(errno);
  struct stat status{};
  if (fstat(file.get(), &status) != 0) return std::unexpected(errno);
  if (S_ISDIR(status.st_mode)) return std::unexpected(EISDIR);
  if (!S_ISREG(status.st_mode)) return std::unexpected(EACCES);
  std::string bytes;
  std::string chunk(std::size_t{64} << 10U, '\0');
  while (true) {
    const ssize_t count = read(file.get(), chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::unexpected(errno);
    if (count == 0) return bytes;
    if (bytes.size() + static_cast<std::size_t>(count) > maximumBytes) return std::unexpected(EFBIG);
    bytes.append(chunk, 0, static_cast<std::size_t>(count));
  }
}

int replaceFile(const std::string& machinePath, std::string_view bytes) {
  std::string temporaryPath = machinePath.substr(0, machinePath.rfind('/') + 1) + ".replacement-XXXXXX";
  FileDescriptor file(mkostemp(temporaryPath.data(), O_CLOEXEC));
  if (!file) return errno;
  int failure = writeAll(file.get(), bytes);
  if (failure == 0 && fsync(file.get()) != 0) failure = errno;
  file.reset();
  if (failure == 0 && rename(temporaryPath.c_str(), machinePath.c_str()) != 0) failure = errno;
  if (failure != 0) unlink(temporaryPath.c_str());
  return failure;
}

int makeFolders(const std::string& machinePath, unsigned mode) {
  if (mkdir(machinePath.c_str(), mode) == 0 || errno == EEXIST) return 0;
  if (errno != ENOENT) return errno;
  const auto slash = machinePath.rfind('/');
  if (slash == 0 || slash == std::string::npos) return ENOENT;
  if (const int failure = makeFolders(machinePath.substr(0, slash), mode); failure != 0) return failure;
  return mkdir(machinePath.c_str(), mode) == 0 || errno == EEXIST ? 0 : errno;
}

}  // namespace platform::posix
