// QuorvelAES128Crypto: the payload cipher of one developer key.
//
// AES-128-CBC with PKCS#7 padding under PBKDF2-HMAC-SHA1(key, salt, 10000, 16). The sealed
// message is ciphertext || IV (16 bytes) || salt (8 bytes), so that a receiver who knows
// the developer key can decrypt. Password, salt and IV never change after construction; the
// derived key is computed once, on first use, and kept. The object is safe to share between
// threads.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include <quorvel/Json.h>
#include <quorvel/platform/Random.h>

namespace quorvel {

class Log;

class QuorvelAES128Crypto {
 public:
  static constexpr int kRounds = 10000;
  static constexpr std::size_t kKeySize = 16;
  static constexpr std::size_t kIVSize = 16;
  static constexpr std::size_t kSaltSize = 8;
  static constexpr const char* kDefaultSaltBase64 = "Zt4mQp9LxR0=";

  // Draws the IV from `random` and chooses the salt; failures are logged to `log`.
  QuorvelAES128Crypto(std::optional<std::string> password, std::shared_ptr<platform::Random> random,
                      std::shared_ptr<const Log> log);

  const std::optional<std::string>& password() const noexcept { return password_; }
  const Bytes& salt() const noexcept { return salt_; }
  const Bytes& iv() const noexcept { return iv_; }

  // The sealed message, or nullopt (logged) when the cipher fails.
  std::optional<Bytes> encrypt(std::span<const std::uint8_t> data) const;

  // Zeros (logged) when `random` is missing or fails.
  static Bytes randomDataOfLength(unsigned long length,
                                  const std::shared_ptr<platform::Random>& random, const Log& log);
  static Bytes AESKeyForPassword(const std::optional<std::string>& password, const Bytes& salt,
                                 const Log& log);

 private:
  const Bytes& derivedKey() const;

  std::shared_ptr<const Log> log_;
  std::optional<std::string> password_;
  Bytes salt_;
  Bytes iv_;
  mutable std::once_flag keyDerived_;
  mutable Bytes key_;
};

}  // namespace quorvel
