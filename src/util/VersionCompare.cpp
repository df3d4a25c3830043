#include "util/VersionCompare.h"

#include <cctype>

namespace quorvel {
namespace {
bool isDigit(char c) {
  return std::isdigit(static_cast<unsigned char>(c)) != 0;
}
}  // namespace

int compareNumeric(std::string_view a, std::string_view b) noexcept {
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < a.size() && j < b.size()) {
    if (isDigit(a[i]) && isDigit(b[j])) {
      while (i < a.size() && a[i] == '0')
        ++i;
      while (j < b.size() && b[j] == '0')
        ++j;
      std::size_t ei = i;
      std::size_t ej = j;
      while (ei < a.size() && isDigit(a[ei]))
        ++ei;
      while (ej < b.size() && isDigit(b[ej]))
        ++ej;
      if (ei - i != ej - j)
        return ei - i < ej - j ? -1 : 1;
      const int c = a.substr(i, ei - i).compare(b.substr(j, ej - j));
      if (c != 0)
        return c < 0 ? -1 : 1;
      i = ei;
      j = ej;
      continue;
    }
    if (a[i] != b[j])
      return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]) ? -1 : 1;
    ++i;
    ++j;
  }
  if (i < a.size())
    return 1;
  if (j < b.size())
    return -1;
  return 0;
}

}  // namespace quorvel
