#include "Posix/NdjsonSystemLog.h"

#include "Posix/FileDescriptor.h"
#include "Posix/RegularFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace platform::posix {
namespace {

/// "2026-11-22 19:24:42.123456+0000", local time.
std::string timestamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  std::array<char, 32> date{};
  std::array<char, 8> offset{};
  strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &local);
  strftime(offset.data(), offset.size(), "%z", &local);
  return fmt::format("{}.{:06}{}", date.data(), now.tv_nsec / 1000, offset.data());
}

std::string_view typeName(SystemLog::Type type) {
  switch (type) {
    case SystemLog::Type::error:
      return "Error";
    case SystemLog::Type::fault:
      return "Fault";
    case SystemLog::Type::standard:
      break;
  }
  return "Default";
}

FileDescriptor openForAppending(const std::string& path) {
  return FileDescriptor(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644));
}

}  // namespace

NdjsonSystemLog::NdjsonSystemLog(const std::string& home)
    : folder_(home + "/Library/Logs"), path_(folder_ + "/system.ndjson") {
  std::array<char, PATH_MAX> path{};
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length > 0) processImagePath_.assign(path.data(), static_cast<std::size_t>(length));
}

void NdjsonSystemLog::write(std::string_view subsystem, std::string_view category, Type type,
                            std::string_view message) {
  const std::string time = timestamp();
  const nlohmann::ordered_json entry = {{"timestamp", time},       {"messageType", typeName(type)},
                                        {"eventMessage", message}, {"subsystem", subsystem},
                                        {"category", category},    {"processID", getpid()},
                                        {"threadID", gettid()},    {"processImagePath", processImagePath_}};
  std::string line = entry.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
  FileDescriptor file = openForAppending(path_);
  if (!file && errno == ENOENT && makeFolders(folder_, 0700) == 0) file = openForAppending(path_);
  if (file) append(file.get(), std::move(line));
  if (isatty(STDERR_FILENO) == 1) {
    std::string readable = fmt::format("{} {:7} [{}] {}", time, typeName(type), category, message);
    std::ranges::replace_if(readable, [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
    readable += '\n';
    [[maybe_unused]] const ssize_t shown = ::write(STDERR_FILENO, readable.data(), readable.size());
  }
}

void NdjsonSystemLog::append(int file, std::string line) {
  const bool endsLine = endsInMidLine_.exchange(false);
  if (endsLine) line.insert(0, 1, '\n');
  const ssize_t written = ::write(file, line.data(), line.size());
  const auto whole = static_cast<ssize_t>(line.size());
  if (written < whole && (written > 0 || endsLine)) endsInMidLine_ = true;
}

}  // namespace platform::posix
