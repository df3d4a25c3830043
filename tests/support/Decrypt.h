// The receiving side of the payload cipher, written independently of the library with
// OpenSSL's EVP interface: split the layout, derive the key, decrypt.
#pragma once

#include <openssl/evp.h>

#include <optional>
#include <string>

#include <quorvel/Json.h>

namespace quorvel::test {

inline std::optional<Bytes> decryptIndependently(const std::string& devKey, const Bytes& sealed) {
  if (sealed.size() < 24 + 16)
    return std::nullopt;
  const std::size_t n = sealed.size() - 24;
  const Bytes iv(sealed.begin() + static_cast<long>(n), sealed.begin() + static_cast<long>(n) + 16);
  const Bytes salt(sealed.begin() + static_cast<long>(n) + 16, sealed.end());
  unsigned char key[16];
  PKCS5_PBKDF2_HMAC(devKey.data(), static_cast<int>(devKey.size()), salt.data(), 8, 10000,
                    EVP_sha1(), 16, key);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  Bytes out(n + 16);
  int len = 0;
  int fin = 0;
  const bool ok =
      EVP_DecryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key, iv.data()) == 1 &&
      EVP_DecryptUpdate(ctx, out.data(), &len, sealed.data(), static_cast<int>(n)) == 1 &&
      EVP_DecryptFinal_ex(ctx, out.data() + len, &fin) == 1;
  EVP_CIPHER_CTX_free(ctx);
  if (!ok)
    return std::nullopt;
  out.resize(static_cast<std::size_t>(len + fin));
  return out;
}

// The decrypted body as JSON; a discarded value when it is not.
inline Json decryptPayload(const std::string& devKey, const Bytes& sealed) {
  const auto plain = decryptIndependently(devKey, sealed);
  if (!plain)
    return Json(Json::value_t::discarded);
  return Json::parse(plain->begin(), plain->end(), nullptr, false);
}

}  // namespace quorvel::test
