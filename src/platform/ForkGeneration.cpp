#include "platform/ForkGeneration.h"

#include <pthread.h>

#include <atomic>

namespace quorvel::platform {
namespace {

std::atomic<std::uint64_t> generation{0};

void childAfterFork() noexcept {
  generation.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

std::uint64_t forkGeneration() noexcept {
  // Registered on first use: only what was made after it can be told apart, and nothing that
  // asks was made before it.
  static const bool registered = pthread_atfork(nullptr, nullptr, childAfterFork) == 0;
  static_cast<void>(registered);
  return generation.load(std::memory_order_relaxed);
}

}  // namespace quorvel::platform
