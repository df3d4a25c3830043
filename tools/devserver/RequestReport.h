// What the emulator received, for a person (a summary per request) or a script (JSON).
#pragma once

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "RequestStore.h"

namespace quorvel::devserver {

// One JSON array; bodies that are not UTF-8 text are given in base64 under "body_base64".
void printRequestsJson(std::ostream& out, const std::vector<StoredRequest>& requests);

// A block per request (the telling keys of its clear payload) and totals per service.
// `full` prints every payload whole.
// Escaped for a terminal (see terminalSafe).
void printRequestsText(std::ostream& out, const std::vector<StoredRequest>& requests, bool full);

// `text` with its control characters (C0 but line breaks where `keepNewlines`, DEL, C1) as
// "\xNN": what a client sent must not move a terminal's cursor, retitle it or worse.
std::string terminalSafe(std::string_view text, bool keepNewlines = true);

}  // namespace quorvel::devserver
