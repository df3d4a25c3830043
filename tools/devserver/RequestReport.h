// What the emulator received, for a person (a summary per request) or a script (JSON).
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "RequestStore.h"

namespace quorvel::devserver {

// One JSON array; bodies that are not UTF-8 text are given in base64 under "body_base64".
// Always valid JSON, escaped as safeJsonText does.
void printRequestsJson(std::ostream& out, const std::vector<StoredRequest>& requests);

// A block per request (the telling keys of its clear payload) and totals per service.
// `full` prints every payload whole.
// Escaped for a terminal (see terminalSafe in SafeText.h).
void printRequestsText(std::ostream& out, const std::vector<StoredRequest>& requests, bool full);

}  // namespace quorvel::devserver
