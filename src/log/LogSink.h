// Where QVLogLocal, the logger's exported function, writes and what dates its lines: the
// installed platform's system log and clock (the facade sets them when a platform is
// installed), standard error and the system clock until then. The library's own lines go
// through the logger of their tracker (log/Log.h), not through this.
#pragma once

#include <memory>
#include <string_view>

#include <quorvel/platform/Clock.h>
#include <quorvel/platform/SystemLog.h>

namespace quorvel::detail {

void setLogSink(std::shared_ptr<const platform::Clock> clock,
                std::shared_ptr<platform::SystemLog> systemLog) noexcept;
std::shared_ptr<const platform::Clock> logClock() noexcept;
void writeLogSink(std::string_view line) noexcept;

}  // namespace quorvel::detail
