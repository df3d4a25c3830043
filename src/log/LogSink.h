// Where the logger writes, what dates its lines and which remote-debugging collection it
// mirrors them into. The composition root sets them (installing a platform, making a tracker);
// until then lines go to standard error, dated by the system clock, and are mirrored nowhere.
#pragma once

#include <memory>
#include <string_view>

#include <quorvel/platform/Clock.h>
#include <quorvel/platform/SystemLog.h>

namespace quorvel {
class QuorvelProxyManager;
}

namespace quorvel::detail {

void setLogSink(std::shared_ptr<const platform::Clock> clock,
                std::shared_ptr<platform::SystemLog> systemLog) noexcept;
std::shared_ptr<const platform::Clock> logClock() noexcept;
void writeLogSink(std::string_view line) noexcept;

void setLogMirror(QuorvelProxyManager* mirror) noexcept;
QuorvelProxyManager* logMirror() noexcept;

}  // namespace quorvel::detail
