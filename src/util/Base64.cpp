#include "util/Base64.h"

namespace quorvel {
namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int decodeChar(char c) {
  if (c >= 'A' && c <= 'Z')
    return c - 'A';
  if (c >= 'a' && c <= 'z')
    return c - 'a' + 26;
  if (c >= '0' && c <= '9')
    return c - '0' + 52;
  if (c == '+')
    return 62;
  if (c == '/')
    return 63;
  return -1;
}
}  // namespace

// Written through a pointer into text sized once: every event's body is encoded, and a
// character-by-character append costs several times the encoding itself.
std::string base64Encode(const std::uint8_t* data, std::size_t size) {
  std::string out(4 * ((size + 2) / 3), '=');
  char* to = out.data();
  std::size_t i = 0;
  for (; i + 2 < size; i += 3) {
    const unsigned v = (unsigned{data[i]} << 16U) | (unsigned{data[i + 1]} << 8U) | data[i + 2];
    to[0] = kAlphabet[(v >> 18U) & 63U];
    to[1] = kAlphabet[(v >> 12U) & 63U];
    to[2] = kAlphabet[(v >> 6U) & 63U];
    to[3] = kAlphabet[v & 63U];
    to += 4;
  }
  if (i < size) {
    const unsigned v =
        (unsigned{data[i]} << 16U) | (i + 1 < size ? unsigned{data[i + 1]} << 8U : 0U);
    to[0] = kAlphabet[(v >> 18U) & 63U];
    to[1] = kAlphabet[(v >> 12U) & 63U];
    if (i + 1 < size)
      to[2] = kAlphabet[(v >> 6U) & 63U];
  }
  return out;
}

Bytes base64DecodeLenient(std::string_view text) {
  Bytes out;
  unsigned acc = 0;
  int bits = 0;
  for (const char c : text) {
    if (c == '=')
      break;
    const int v = decodeChar(c);
    if (v < 0)
      continue;
    acc = (acc << 6U) | static_cast<unsigned>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>((acc >> static_cast<unsigned>(bits)) & 0xFFU));
    }
  }
  return out;
}

}  // namespace quorvel
