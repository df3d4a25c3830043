#include <openssl/err.h>
#include <openssl/rand.h>

#include <cerrno>
#include <climits>

#include "platform/posix/PosixServices.h"

namespace quorvel::platform {

int OpenSslRandom::fill(Bytes& out) noexcept {
  if (out.empty())
    return 0;
  if (out.size() > static_cast<std::size_t>(INT_MAX))
    return EINVAL;
  Bytes fresh(out.size());
  if (RAND_bytes(fresh.data(), static_cast<int>(fresh.size())) != 1) {
    ERR_clear_error();
    return EIO;
  }
  out.swap(fresh);
  return 0;
}

std::uint32_t OpenSslRandom::uniform(std::uint32_t upperBound) noexcept {
  if (upperBound < 2)
    return 0;
  // Rejection sampling: values in the incomplete last block would bias the result.
  const std::uint32_t limit = UINT32_MAX - (UINT32_MAX % upperBound);
  for (;;) {
    std::uint32_t value = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&value), sizeof value) != 1) {
      ERR_clear_error();
      return 0;
    }
    if (value < limit)
      return value % upperBound;
  }
}

}  // namespace quorvel::platform
