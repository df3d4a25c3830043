// Compact JSON text appended to a buffer the caller keeps.
#pragma once

#include <string>

#include <quorvel/Json.h>

namespace quorvel {

// Appends to `out` byte for byte what `value.dump(-1, ' ', false, Json::error_handler_t::replace)`
// returns, without a string of its own per call. Most request text is plain ASCII and is copied
// as it is; strings that need escaping or checking, and numbers with a fraction, are written by
// the JSON library's own writer.
void appendCompactJson(const Json& value, std::string& out);

}  // namespace quorvel
