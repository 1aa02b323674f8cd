#pragma once

#include "Platform/SystemLog.h"

#include <atomic>
#include <string>

namespace platform::posix {

/// One line of JSON an entry, with the field names of `log show --style ndjson`, appended by a single write to
/// $HOME/Library/Logs/system.ndjson; a readable line to standard error as well when that is a terminal. The file is
/// opened for each entry, so it may be moved away at any time. Entries are not cut to the platform's 1024 bytes; bytes
/// that are not UTF-8 become U+FFFD. An entry that cannot be written is lost, and one that a full disk cuts short is a
/// line of its own.
class NdjsonSystemLog final : public SystemLog {
 public:
  explicit NdjsonSystemLog(const std::string& home);

  void write(std::string_view subsystem, std::string_view category, Type type, std::string_view message) override;

 private:
  void append(int file, std::string line);

  std::string folder_;
  std::string path_;
  std::string processImagePath_;
  std::atomic<bool> endsInMidLine_ = false;
};

}  // namespace platform::posix
