// The wait a service asks for in its Retry-After header: delta-seconds or an HTTP date.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

#include <quorvel/platform/Clock.h>
#include <quorvel/platform/URLSession.h>

namespace quorvel {

// The wait `value` names at `now`; none when it is neither form. A date in the past is 0 s.
std::optional<std::chrono::seconds> parseRetryAfter(std::string_view value,
                                                    platform::TimePoint now);

// The wait an answer asks for: its Retry-After, or 0 s when it names none or none readable.
std::chrono::seconds retryAfterOf(const std::optional<platform::URLResponse>& response,
                                  platform::TimePoint now);

}  // namespace quorvel
