// Whether a platform's clock is the system's own: a host's call then reads the time directly,
// without the calls through the platform and the clock object, whose memory an idle host's
// thread would fetch first.
#pragma once

#include <quorvel/platform/Clock.h>

namespace quorvel::platform {

bool isSystemClock(const Clock& clock) noexcept;

}  // namespace quorvel::platform
