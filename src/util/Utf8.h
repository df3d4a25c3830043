// UTF-8 checks shared by the helpers that mimic the platform's string handling.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quorvel {

bool isValidUtf8(std::string_view text) noexcept;
// The text with every invalid byte replaced by U+FFFD: text always holds characters, so a
// log line built from raw bytes can still be serialised as JSON.
std::string toValidUtf8(std::string_view text);
// Bytes read as text one character per byte (the byte's value is the code point), in
// UTF-8: what reading arbitrary bytes as ASCII text gives on the platforms that allow it.
std::string bytesAsText(std::string_view bytes);
// Number of UTF-16 code units of UTF-8 text; an invalid byte counts as one unit.
std::size_t utf16Length(std::string_view text) noexcept;
// Integer value of the leading decimal number of a text ("12abc" -> 12, "x" -> 0).
long long leadingInteger(std::string_view text) noexcept;

}  // namespace quorvel
