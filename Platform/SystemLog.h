#pragma once

#include <string_view>

namespace platform {

/// The unified system log. Every entry is public, complete and written before write() returns. Any thread.
class SystemLog {
 public:
  enum class Type { standard, error, fault };

  virtual ~SystemLog() = default;
  virtual void write(std::string_view subsystem, std::string_view category, Type type, std::string_view message) = 0;
};

}  // namespace platform
