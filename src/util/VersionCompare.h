// Comparison of version texts with runs of digits compared as numbers ("10.3" > "8").
#pragma once

#include <string_view>

namespace quorvel {

// Negative, zero or positive as `a` sorts before, with or after `b`.
int compareNumeric(std::string_view a, std::string_view b) noexcept;

}  // namespace quorvel
