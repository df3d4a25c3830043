#include "platform/posix/IdleMemory.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
// After the C library's own headers, which define __GLIBC__ where malloc_trim exists.
#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace quorvel::platform {
namespace {

// Below this much growth since the last release, releasing is not worth its cost (tens of
// ms of one thread after a burst): what lone calls leave free is reused by the next ones.
constexpr long kWorthReleasingKiB = 1024;

// The process's private memory in memory now (KiB), or -1.
long privateResidentKiB() noexcept {
  std::FILE* statm = std::fopen("/proc/self/statm", "re");
  if (statm == nullptr)
    return -1;
  long size = 0;
  long resident = 0;
  long shared = 0;
  const bool read = std::fscanf(statm, "%ld %ld %ld", &size, &resident, &shared) == 3;
  std::fclose(statm);
  return read ? (resident - shared) * (::sysconf(_SC_PAGESIZE) / 1024) : -1;
}

std::atomic<long> gAfterLastRelease{0};
std::atomic<bool> gReleasing{false};

}  // namespace

void workerWentIdle() noexcept {
#if defined(__GLIBC__)
  // One thread at a time: threads that end together would only contend for the same pages.
  if (gReleasing.exchange(true, std::memory_order_acquire))
    return;
  if (const long now = privateResidentKiB();
      now >= 0 && now - gAfterLastRelease.load(std::memory_order_relaxed) >= kWorthReleasingKiB) {
    // Free pages of every allocator arena, the host's own included: only what nobody holds.
    ::malloc_trim(0);
    gAfterLastRelease.store(privateResidentKiB(), std::memory_order_relaxed);
  }
  gReleasing.store(false, std::memory_order_release);
#endif
}

}  // namespace quorvel::platform
