#pragma once

#include "Platform/Clock.h"

namespace platform::posix {

class SystemClock final : public Clock {
 public:
  /// CLOCK_MONOTONIC, which stands still in suspend.
  [[nodiscard]] TimeInterval uptime() const override;
  [[nodiscard]] TimeInterval date() const override;
};

}  // namespace platform::posix
