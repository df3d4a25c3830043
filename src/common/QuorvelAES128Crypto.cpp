#include "common/QuorvelAES128Crypto.h"

#include <openssl/evp.h>

#include <memory>

#include <quorvel/Platform.h>

#include "log/Log.h"
#include "util/Base64.h"
#include "util/Utf8.h"

namespace quorvel {
namespace {

// Length in characters (UTF-16 code units of the platform's strings) of UTF-8 text.
std::size_t characterCount(const std::string& text) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if ((c & 0xC0U) != 0x80U)
      count += (c >= 0xF0U) ? 2 : 1;
  }
  return count;
}

// The cipher's implementation, looked up once: a lookup by name on every message costs more than
// the encryption of a small one. Never freed, as requests may be sealed while the process exits.
const EVP_CIPHER* aes128Cbc() {
  static const EVP_CIPHER* const fetched = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
  return fetched != nullptr ? fetched : EVP_aes_128_cbc();
}

struct CipherContextDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const noexcept { EVP_CIPHER_CTX_free(ctx); }
};

}  // namespace

QuorvelAES128Crypto::QuorvelAES128Crypto(std::optional<std::string> password,
                                         std::shared_ptr<platform::Random> random,
                                         std::shared_ptr<const Log> log)
    : log_(std::move(log)), password_(std::move(password)) {
  iv_ = randomDataOfLength(kIVSize, random, *log_);
  salt_ = base64DecodeLenient(kDefaultSaltBase64);
  if (password_ && characterCount(*password_) >= 11) {
    salt_.assign(password_->begin(), password_->begin() + kSaltSize);
  } else {
    log_->log(kLogError, "-[QuorvelAES128Crypto initWithPassword:]", "Wrong Quorvel DevKey length");
  }
}

Bytes QuorvelAES128Crypto::randomDataOfLength(unsigned long length,
                                              const std::shared_ptr<platform::Random>& random,
                                              const Log& log) {
  Bytes buffer(length, 0);
  const int status = random ? random->fill(buffer) : -1;
  if (status != 0) {
    log.log(kLogError, "+[QuorvelAES128Crypto randomDataOfLength:]",
            "Unable to generate random bytes: %d", status);
    std::fill(buffer.begin(), buffer.end(), 0);
  }
  return buffer;
}

Bytes QuorvelAES128Crypto::AESKeyForPassword(const std::optional<std::string>& password,
                                             const Bytes& salt, const Log& log) {
  Bytes key(kKeySize, 0);
  const std::string& pass = password ? *password : std::string();
  const int ok = PKCS5_PBKDF2_HMAC_SHA1(pass.data(), static_cast<int>(pass.size()), salt.data(),
                                        static_cast<int>(salt.size()), kRounds,
                                        static_cast<int>(key.size()), key.data());
  if (ok != 1) {
    // The platform's derivation reports -4300 (parameter error) for such failures.
    log.log(kLogError, "+[QuorvelAES128Crypto AESKeyForPassword:salt:]",
            "Unable to create AES key for password: %d", -4300);
    std::fill(key.begin(), key.end(), 0);
  }
  return key;
}

// Kept after the first derivation instead of derived afresh for every message: password and
// salt are fixed for the object's life, so the key and the bytes on the wire are the same,
// while 10,000 PBKDF2 rounds per message capped delivery near 190 events/s.
const Bytes& QuorvelAES128Crypto::derivedKey() const {
  std::call_once(keyDerived_, [this] { key_ = AESKeyForPassword(password_, salt_, *log_); });
  return key_;
}

std::optional<Bytes> QuorvelAES128Crypto::encrypt(std::span<const std::uint8_t> data) const {
  static constexpr const char* kMethod = "-[QuorvelAES128Crypto encrypt:]";
  const Bytes& key = derivedKey();
  // The derived key is never logged: with it, every payload of this app could be read.
  if (data.size() > static_cast<std::size_t>(INT32_MAX - 32)) {
    log_->log(kLogError, kMethod, "Unable to encrypt data");
    return std::nullopt;
  }
  // Room for the padding, the IV and the salt at once: the message is never moved to grow.
  Bytes out;
  out.reserve(data.size() + 16 + iv_.size() + salt_.size());
  out.resize(data.size() + 16);
  int produced = 0;
  int finalLength = 0;
  const std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter> ctx(EVP_CIPHER_CTX_new());
  const bool ok =
      ctx && EVP_EncryptInit_ex(ctx.get(), aes128Cbc(), nullptr, key.data(), iv_.data()) == 1 &&
      EVP_EncryptUpdate(ctx.get(), out.data(), &produced, data.data(),
                        static_cast<int>(data.size())) == 1 &&
      EVP_EncryptFinal_ex(ctx.get(), out.data() + produced, &finalLength) == 1;
  if (!ok) {
    log_->log(kLogError, kMethod, "Unable to encrypt data");
    return std::nullopt;
  }
  out.resize(static_cast<std::size_t>(produced + finalLength));
  out.insert(out.end(), iv_.begin(), iv_.end());
  out.insert(out.end(), salt_.begin(), salt_.end());
  return out;
}

}  // namespace quorvel
