#include "util/Utf8.h"

#include <climits>

namespace quorvel {
namespace {

// Length of the valid UTF-8 sequence starting at i, or 0 when it is not valid.
std::size_t sequenceLength(std::string_view s, std::size_t i) {
  const auto c = static_cast<unsigned char>(s[i]);
  std::size_t n = 0;
  if (c < 0x80)
    return 1;
  if (c >= 0xC2 && c <= 0xDF)
    n = 2;
  else if (c >= 0xE0 && c <= 0xEF)
    n = 3;
  else if (c >= 0xF0 && c <= 0xF4)
    n = 4;
  else
    return 0;
  if (i + n > s.size())
    return 0;
  // The second byte's range excludes overlong forms, surrogates and code points above
  // U+10FFFF, which a strict JSON writer refuses.
  const auto second = static_cast<unsigned char>(s[i + 1]);
  const bool secondInRange = (c == 0xE0)   ? second >= 0xA0
                             : (c == 0xED) ? second <= 0x9F
                             : (c == 0xF0) ? second >= 0x90
                             : (c == 0xF4) ? second <= 0x8F
                                           : true;
  if (!secondInRange)
    return 0;
  for (std::size_t k = 1; k < n; ++k) {
    if ((static_cast<unsigned char>(s[i + k]) & 0xC0U) != 0x80U)
      return 0;
  }
  return n;
}

}  // namespace

[[gnu::hot]] bool isValidUtf8(std::string_view text) noexcept {
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t n = sequenceLength(text, i);
    if (n == 0)
      return false;
    i += n;
  }
  return true;
}

std::string toValidUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t n = sequenceLength(text, i);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(text.substr(i, n));
      i += n;
    }
  }
  return out;
}

std::string bytesAsText(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      out.push_back(c);
    } else {
      out.push_back(static_cast<char>(0xC0 | (byte >> 6)));
      out.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
    }
  }
  return out;
}

std::size_t utf16Length(std::string_view text) noexcept {
  std::size_t units = 0;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t n = sequenceLength(text, i);
    units += n == 4 ? 2 : 1;
    i += n == 0 ? 1 : n;
  }
  return units;
}

long long leadingInteger(std::string_view text) noexcept {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n'))
    ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+'))
    negative = text[i++] == '-';
  long long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const int digit = text[i] - '0';
    if (value > (LLONG_MAX - digit) / 10)
      return negative ? LLONG_MIN : LLONG_MAX;
    value = value * 10 + digit;
  }
  return negative ? -value : value;
}

}  // namespace quorvel
