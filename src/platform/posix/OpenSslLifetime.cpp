#include "platform/posix/OpenSslLifetime.h"

#include <openssl/crypto.h>

#include <mutex>

namespace quorvel::platform {

void keepOpenSslUntilExit() {
  static std::once_flag once;
  std::call_once(once, [] { OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); });
}

}  // namespace quorvel::platform
