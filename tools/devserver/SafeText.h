// What clients sent, made safe to show: a terminal or a browser must not take a byte of it
// for a command (escape sequences, C1 controls, bidirectional overrides that reorder what is
// read), and a JSON reader must always get valid JSON.
#pragma once

#include <string>
#include <string_view>

#include "RequestStore.h"

namespace quorvel::devserver {

// `text` with invalid UTF-8 bytes, C0 controls (but line breaks where `keepNewlines`), DEL
// and C1 controls as "\xNN", and bidirectional overrides and isolates as "\uNNNN".
std::string terminalSafe(std::string_view text, bool keepNewlines = true);

// `value` as JSON text. An invalid UTF-8 byte in a string becomes the text "\xNN"; DEL, C1
// controls and bidirectional overrides are written as JSON escapes ("\u009b"), which give a
// JSON reader the very character back while no raw one reaches a terminal.
std::string safeJsonText(const Json& value, int indent = 2);

bool isValidUtf8(std::string_view text);

}  // namespace quorvel::devserver
