#include <ctime>

#include "platform/SystemClock.h"
#include "platform/posix/PosixServices.h"

namespace quorvel::platform {

[[gnu::hot]] TimePoint PosixClock::now() const noexcept {
  return std::chrono::system_clock::now();
}

bool isSystemClock(const Clock& clock) noexcept {
  return dynamic_cast<const PosixClock*>(&clock) != nullptr;
}

long PosixClock::secondsFromGMT(TimePoint at) const noexcept {
  const std::time_t t = std::chrono::system_clock::to_time_t(at);
  std::tm local{};
  if (localtime_r(&t, &local) == nullptr)
    return 0;
  return local.tm_gmtoff;
}

}  // namespace quorvel::platform
