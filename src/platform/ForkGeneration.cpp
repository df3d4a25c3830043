#include "platform/ForkGeneration.h"

#include <pthread.h>

#include <atomic>
#include <new>

namespace quorvel::platform {
namespace {

std::atomic<std::uint64_t> generation{0};

struct Orphan {
  std::shared_ptr<void> object;
  Orphan* next = nullptr;
};
// Never freed: what it holds lives as long as the process. A list of its own, pushed without
// a lock, as a lock copied held by the fork would hang the child on its first orphan.
std::atomic<Orphan*> orphans{nullptr};

void childAfterFork() noexcept {
  generation.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

[[gnu::hot]] std::uint64_t forkGeneration() noexcept {
  // Registered on first use: only what was made after it can be told apart, and nothing that
  // asks was made before it.
  static const bool registered = pthread_atfork(nullptr, nullptr, childAfterFork) == 0;
  static_cast<void>(registered);
  return generation.load(std::memory_order_relaxed);
}

void keepForkOrphan(std::shared_ptr<void> object) noexcept {
  Orphan* const orphan = new (std::nothrow) Orphan{std::move(object)};
  if (orphan == nullptr) {
    // No memory for the list: the reference moves into storage whose destructor never runs,
    // so that the object is never destroyed (unreachable then, but never a hang).
    alignas(std::shared_ptr<void>) unsigned char never[sizeof(std::shared_ptr<void>)];
    new (never) std::shared_ptr<void>(std::move(object));
    return;
  }
  orphan->next = orphans.load(std::memory_order_relaxed);
  while (!orphans.compare_exchange_weak(orphan->next, orphan, std::memory_order_release,
                                        std::memory_order_relaxed)) {
  }
}

void lockAcrossForks(void (*lock)(), void (*unlock)()) noexcept {
  pthread_atfork(lock, unlock, unlock);
}

}  // namespace quorvel::platform
