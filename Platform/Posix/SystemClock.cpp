#include "Posix/SystemClock.h"

#include <ctime>

namespace platform::posix {
namespace {

/// Seconds from 1970-01-01 to 2001-01-01.
constexpr TimeInterval referenceDateSinceEpoch = 978307200;

TimeInterval seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<TimeInterval>(time.tv_sec) + (static_cast<TimeInterval>(time.tv_nsec) / 1e9);
}

}  // namespace

TimeInterval SystemClock::uptime() const {
  return seconds(CLOCK_MONOTONIC);
}
TimeInterval SystemClock::date() const {
  return seconds(CLOCK_REALTIME) - referenceDateSinceEpoch;
}

}  // namespace platform::posix
