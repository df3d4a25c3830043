// UTF-8 checks shared by the helpers that mimic the platform's string handling.
#pragma once

#include <cstddef>
#include <string_view>

namespace quorvel {

bool isValidUtf8(std::string_view text) noexcept;
// Number of UTF-16 code units of UTF-8 text; an invalid byte counts as one unit.
std::size_t utf16Length(std::string_view text) noexcept;
// Integer value of the leading decimal number of a text ("12abc" -> 12, "x" -> 0).
long long leadingInteger(std::string_view text) noexcept;

}  // namespace quorvel
