// The receiving side of the library's payload cipher and of its short-link signature,
// written with OpenSSL's EVP interface and independently of the library.
#pragma once

#include <optional>
#include <string>

namespace quorvel::devserver {

// A sealed body is the AES-128-CBC ciphertext, then the 16-byte IV, then the 8-byte salt;
// the key is PBKDF2-HMAC-SHA1 of the developer key (10000 rounds). Nothing when the body
// is too short or does not decrypt with this key.
std::optional<std::string> decryptPayload(const std::string& devKey, const std::string& sealed);

// 40 lower-case hexadecimal digits of SHA-1 over `text`.
std::string sha1Hex(const std::string& text);

}  // namespace quorvel::devserver
