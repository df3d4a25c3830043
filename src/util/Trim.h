// Blanks and tabs off both ends of a text, as the platform's trimming with the whitespace set
// does (line breaks stay).
#pragma once

#include <string>

namespace quorvel {

inline std::string trimBlanksAndTabs(const std::string& s) {
  const auto first = s.find_first_not_of(" \t");
  if (first == std::string::npos)
    return {};
  const auto last = s.find_last_not_of(" \t");
  return s.substr(first, last - first + 1);
}

}  // namespace quorvel
