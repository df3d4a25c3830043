// JSON read from outside the process (service answers, files, host payloads): parsed only
// when its nesting stays within a bound, so that nothing later recurses over it without one.
#pragma once

#include <quorvel/Json.h>

#include <cstddef>
#include <string_view>

namespace quorvel {

inline constexpr std::size_t kMaxJsonDepth = 128;

// Nesting depth of JSON text (0 for a scalar), read in one pass without recursion and
// without parsing; brackets inside strings do not count. Stops counting above `limit`.
std::size_t jsonTextDepth(std::string_view text, std::size_t limit = kMaxJsonDepth) noexcept;

// The value that stands for JSON that could not be read (is_discarded()).
inline Json discardedJson() {
  // Not braced: braces would make an array holding the value type.
  return Json(Json::value_t::discarded);  // NOLINT(modernize-return-braced-init-list)
}

// The parsed value, or a discarded value for text that is not JSON or nests deeper than
// `limit`: callers keep their existing bad-JSON path.
Json parseBoundedJson(std::string_view text, std::size_t limit = kMaxJsonDepth);

// Whether a value built in memory nests deeper than `limit`, checked without recursion.
bool jsonDeeperThan(const Json& value, std::size_t limit = kMaxJsonDepth) noexcept;

}  // namespace quorvel
