#include "xattr/ExtendedAttributes.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tools {
namespace {

constexpr std::string_view prefix = "user.";

std::string linuxName(const std::string& name) {
  return std::string(prefix) + name;
}

/// Calls with a buffer that is large enough, even when the value grows between asking for its size and reading it.
template <class Call>
std::expected<std::string, int> sized(Call call) {
  while (true) {
    const ssize_t size = call(nullptr, 0);
    if (size < 0) return std::unexpected(errno);
    std::string bytes(static_cast<std::size_t>(size) + 1, '\0');
    const ssize_t count = call(bytes.data(), bytes.size());
    if (count < 0 && errno == ERANGE) continue;
    if (count < 0) return std::unexpected(errno);
    bytes.resize(static_cast<std::size_t>(count));
    return bytes;
  }
}

bool isOrdinary(const std::string& path) {
  struct stat status{};
  return stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
}

/// A file that can have no attributes lacks the one that is asked for.
int asMissing(int code, const std::string& path) {
  return code == ENOTSUP || (code == EPERM && !isOrdinary(path)) ? ENODATA : code;
}

}  // namespace

int ExtendedAttributes::check() const {
  struct stat status{};
  return stat(path_.c_str(), &status) == 0 ? 0 : errno;
}

std::expected<std::vector<std::string>, int> ExtendedAttributes::names() const {
  const auto list = sized([&](char* buffer, std::size_t size) { return listxattr(path_.c_str(), buffer, size); });
  std::vector<std::string> names;
  if (!list) {
    if (list.error() == ENOTSUP) return names;
    return std::unexpected(list.error());
  }
  for (std::size_t start = 0; start < list->size();) {
    const std::string name = list->c_str() + start;
    if (name.starts_with(prefix)) names.push_back(name.substr(prefix.size()));
    start += name.size() + 1;
  }
  std::ranges::sort(names);
  return names;
}

std::expected<std::string, int> ExtendedAttributes::value(const std::string& name) const {
  const std::string full = linuxName(name);
  auto bytes =
      sized([&](char* buffer, std::size_t size) { return getxattr(path_.c_str(), full.c_str(), buffer, size); });
  if (!bytes) return std::unexpected(asMissing(bytes.error(), path_));
  return bytes;
}

int ExtendedAttributes::set(const std::string& name, const std::string& value) const {
  return setxattr(path_.c_str(), linuxName(name).c_str(), value.data(), value.size(), 0) == 0 ? 0 : errno;
}

int ExtendedAttributes::remove(const std::string& name) const {
  const std::string full = linuxName(name);
  if (removexattr(path_.c_str(), full.c_str()) == 0) return 0;
  const int code = errno;
  // Of a file that may not be written the kernel says so before it looks for the attribute.
  const bool isMissing = getxattr(path_.c_str(), full.c_str(), nullptr, 0) < 0 && errno == ENODATA;
  return isMissing ? ENODATA : asMissing(code, path_);
}

}  // namespace tools
