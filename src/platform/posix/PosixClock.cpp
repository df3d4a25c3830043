#include <ctime>

#include "platform/posix/PosixServices.h"

namespace quorvel::platform {

TimePoint PosixClock::now() const noexcept {
  return std::chrono::system_clock::now();
}

long PosixClock::secondsFromGMT(TimePoint at) const noexcept {
  const std::time_t t = std::chrono::system_clock::to_time_t(at);
  std::tm local{};
  if (localtime_r(&t, &local) == nullptr)
    return 0;
  return local.tm_gmtoff;
}

}  // namespace quorvel::platform
