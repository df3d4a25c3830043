// Values handed in by the host, made fit to be written into a report: every string holds
// valid UTF-8 (each bad byte becomes U+FFFD, as the platform's own string conversion does),
// so a stray byte can never make a payload unserialisable and lose the report.
#pragma once

#include <quorvel/Json.h>

#include <optional>
#include <string>
#include <string_view>

namespace quorvel {

std::string hostText(const std::string& text);
std::optional<std::string> hostText(const std::optional<std::string>& text);

// A copy whose keys and strings are valid UTF-8; a value nested deeper than the JSON depth
// bound becomes a discarded value, which every writer already rejects as invalid JSON.
Json hostJson(const Json& value);
std::optional<Json> hostJson(const std::optional<Json>& value);

}  // namespace quorvel
