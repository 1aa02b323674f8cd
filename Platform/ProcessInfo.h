#pragma once

#include <compare>
#include <string>

namespace platform {

struct OperatingSystemVersion {
  int major = 0;
  int minor = 0;
  int patch = 0;
  auto operator<=>(const OperatingSystemVersion&) const = default;
};

/// Facts about the machine this process runs on. Any thread.
class ProcessInfo {
 public:
  virtual ~ProcessInfo() = default;

  /// 0.0.0 when the machine does not tell.
  [[nodiscard]] virtual OperatingSystemVersion operatingSystemVersion() const = 0;

  /// The machine field of the system's uname information: the whole field of 256 bytes, NUL bytes behind the name.
  [[nodiscard]] virtual std::string unameMachine() const = 0;
};

}  // namespace platform
