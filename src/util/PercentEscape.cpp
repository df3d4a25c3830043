#include "util/PercentEscape.h"

#include <cctype>

namespace quorvel {

std::string percentEscape(std::string_view text, bool (*keep)(unsigned char)) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (keep(c)) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4U]);
      out.push_back(kHex[c & 0xFU]);
    }
  }
  return out;
}

bool isUnreservedInUrl(unsigned char c) {
  return std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_' || c == '~';
}

bool isLegalInUrl(unsigned char c) {
  if (isUnreservedInUrl(c))
    return true;
  switch (c) {
    case '!':
    case '$':
    case '&':
    case '\'':
    case '(':
    case ')':
    case '*':
    case '+':
    case ',':
    case '/':
    case ':':
    case ';':
    case '=':
    case '?':
    case '@':
    case '#':
    case '[':
    case ']':
      return true;
    default:
      return false;
  }
}

bool isAllowedInUrlHost(unsigned char c) {
  if (isUnreservedInUrl(c))
    return true;
  switch (c) {
    case '!':
    case '$':
    case '&':
    case '\'':
    case '(':
    case ')':
    case '*':
    case '+':
    case ',':
    case ':':
    case ';':
    case '=':
    case '[':
    case ']':
      return true;
    default:
      return false;
  }
}

Error jsonParserError() {
  return Error{"NSCocoaErrorDomain", 3840,
               "The data couldn't be read because it isn't in the correct format."};
}

}  // namespace quorvel
