#include "PayloadCipher.h"

#include <openssl/evp.h>

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace quorvel::devserver {

namespace {

constexpr std::size_t kIvSize = 16;
constexpr std::size_t kSaltSize = 8;
constexpr int kRounds = 10000;

struct CipherDeleter {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};

const unsigned char* bytes(const std::string& s, std::size_t offset = 0) {
  return reinterpret_cast<const unsigned char*>(s.data()) + offset;
}

using AesKey = std::array<unsigned char, 16>;

// Derived keys by (developer key, salt): every request of an app repeats the same pair, and
// 10,000 PBKDF2 rounds per request would cap the emulator near 300 requests/s per core.
class KeyCache {
 public:
  std::optional<AesKey> keyFor(const std::string& devKey, const std::string& salt) {
    auto id = std::make_pair(devKey, salt);
    {
      const std::lock_guard lock(mutex_);
      if (const auto it = keys_.find(id); it != keys_.end())
        return it->second;
    }
    AesKey key{};
    if (PKCS5_PBKDF2_HMAC(devKey.data(), static_cast<int>(devKey.size()), bytes(salt), kSaltSize,
                          kRounds, EVP_sha1(), key.size(), key.data()) != 1)
      return std::nullopt;
    const std::lock_guard lock(mutex_);
    if (keys_.size() >= kMaxKeys)
      keys_.clear();  // the emulator knows a handful of apps; a flood of salts starts over
    keys_.emplace(std::move(id), key);
    return key;
  }

 private:
  static constexpr std::size_t kMaxKeys = 1024;
  std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, AesKey> keys_;
};

KeyCache& keyCache() {
  static KeyCache cache;
  return cache;
}

}  // namespace

std::optional<std::string> decryptPayload(const std::string& devKey, const std::string& sealed) {
  // At least one cipher block before the IV and salt.
  if (sealed.size() < kIvSize + kSaltSize + 16)
    return std::nullopt;
  const std::size_t n = sealed.size() - kIvSize - kSaltSize;
  const auto key = keyCache().keyFor(devKey, sealed.substr(n + kIvSize, kSaltSize));
  if (!key)
    return std::nullopt;
  const std::unique_ptr<EVP_CIPHER_CTX, CipherDeleter> ctx(EVP_CIPHER_CTX_new());
  std::string out(n + 16, '\0');
  auto* dst = reinterpret_cast<unsigned char*>(out.data());
  int len = 0;
  int fin = 0;
  const bool ok =
      ctx &&
      EVP_DecryptInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key->data(), bytes(sealed, n)) ==
          1 &&
      EVP_DecryptUpdate(ctx.get(), dst, &len, bytes(sealed), static_cast<int>(n)) == 1 &&
      EVP_DecryptFinal_ex(ctx.get(), dst + len, &fin) == 1;
  if (!ok)
    return std::nullopt;
  out.resize(static_cast<std::size_t>(len + fin));
  return out;
}

std::string sha1Hex(const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha1(), nullptr);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 0xF]);
  }
  return hex;
}

}  // namespace quorvel::devserver
