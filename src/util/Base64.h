// Base64 with the standard alphabet, "=" padding and no line breaks.
#pragma once

#include <string>
#include <string_view>

#include <quorvel/Json.h>

namespace quorvel {

std::string base64Encode(const std::uint8_t* data, std::size_t size);
inline std::string base64Encode(const Bytes& data) {
  return base64Encode(data.data(), data.size());
}
// Lenient: characters outside the alphabet are ignored, decoding stops at "=".
Bytes base64DecodeLenient(std::string_view text);

}  // namespace quorvel
