// The receiving side of the payload cipher: the emulator's own decryption, written
// independently of the library.
#pragma once

#include <optional>
#include <string>

#include <quorvel/Json.h>

#include "PayloadCipher.h"

namespace quorvel::test {

inline std::optional<Bytes> decryptIndependently(const std::string& devKey, const Bytes& sealed) {
  const auto plain = devserver::decryptPayload(devKey, std::string(sealed.begin(), sealed.end()));
  if (!plain)
    return std::nullopt;
  return Bytes(plain->begin(), plain->end());
}

// The decrypted body as JSON; a discarded value when it is not.
inline Json decryptPayload(const std::string& devKey, const Bytes& sealed) {
  const auto plain = decryptIndependently(devKey, sealed);
  if (!plain)
    return Json(Json::value_t::discarded);
  return Json::parse(plain->begin(), plain->end(), nullptr, false);
}

// The keys of a JSON object in their order, separated by spaces.
inline std::string keyList(const Json& object) {
  std::string out;
  for (const auto& [key, value] : object.items())
    out += (out.empty() ? "" : " ") + key;
  return out;
}

}  // namespace quorvel::test
