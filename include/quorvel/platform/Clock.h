// Wall-clock time and the device's time zone.
#pragma once

#include <chrono>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

using TimePoint = std::chrono::system_clock::time_point;

class Clock {
 public:
  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  virtual ~Clock() = default;

  // The current date. Any thread.
  virtual TimePoint now() const noexcept = 0;
  // Offset of the device's local time from GMT at `at`, in seconds. Any thread.
  virtual long secondsFromGMT(TimePoint at) const noexcept = 0;
};

// Seconds since 1970 as a double, the library's time stamp unit.
inline double secondsSince1970(TimePoint t) {
  return std::chrono::duration<double>(t.time_since_epoch()).count();
}

}  // namespace quorvel::platform

#pragma GCC visibility pop
