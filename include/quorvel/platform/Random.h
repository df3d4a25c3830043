// The secure random source.
#pragma once

#include <cstddef>
#include <cstdint>

#include <quorvel/Json.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

class Random {
 public:
  Random() = default;
  Random(const Random&) = delete;
  Random& operator=(const Random&) = delete;
  virtual ~Random() = default;

  // Fills `out` with secure random bytes; 0 on success, otherwise a system error number
  // (and `out` is left as it was).
  virtual int fill(Bytes& out) noexcept = 0;
  // A uniform integer in [0, upperBound); 0 when upperBound is 0.
  virtual std::uint32_t uniform(std::uint32_t upperBound) noexcept = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
