// Where the logger writes and what dates its lines: the installed platform's system log and
// clock. Installing a platform sets them; until then lines go to standard error, dated by the
// system clock.
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
