#include <atomic>

#include "platform/posix/PosixServices.h"

namespace quorvel::platform {

// A desktop process is never suspended: background tasks only get an identifier.
BackgroundTaskIdentifier PosixApplication::beginBackgroundTask(
    std::function<void()> /*expiration*/) {
  static std::atomic<BackgroundTaskIdentifier> next{1};
  return next++;
}

void PosixApplication::endBackgroundTask(BackgroundTaskIdentifier /*identifier*/) {}

}  // namespace quorvel::platform
