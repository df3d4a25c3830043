#include "platform/posix/IdleMemory.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <cstddef>

namespace quorvel::platform {
namespace {

// Below this the release is not worth its cost: what lone calls leave free is reused by the
// next ones, and handing it back would make them fault it in again.
constexpr std::size_t kWorthReleasing = std::size_t{1} << 20;

}  // namespace

void workerWentIdle() noexcept {
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 33)
  // Free pages of every allocator arena, the host's own included: only what nobody holds.
  if (::mallinfo2().fordblks >= kWorthReleasing)
    ::malloc_trim(0);
#endif
}

}  // namespace quorvel::platform
