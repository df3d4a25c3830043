// Kernel facts by name ("hw.machine", "hw.ncpu") and by numeric path.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include <quorvel/Json.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

// Answers are raw bytes as the kernel returns them: integers in host byte order at their
// natural width, text with its terminating zero. nullopt when the query does not exist.
class Sysctl {
 public:
  Sysctl() = default;
  Sysctl(const Sysctl&) = delete;
  Sysctl& operator=(const Sysctl&) = delete;
  virtual ~Sysctl() = default;

  virtual std::optional<Bytes> byName(std::string_view name) const = 0;
  virtual std::optional<Bytes> byMib(const std::vector<int>& mib) const = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
