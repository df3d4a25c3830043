#include "platform/ParentOnlyDescriptor.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <mutex>
#include <utility>

namespace quorvel::platform {
namespace {

// The library holds a handful at a time: the outbox's lock and intake files, the preferences'
// folder lock for the time of a write. A descriptor beyond these is still closed by its owner
// and on exec, only a child keeps it.
constexpr std::size_t kSlots = 64;

// A slot holds (serial << 32 | fd) while the descriptor is open, 0 when free: a serial is never
// given twice, so a stale object never mistakes a reused number for its own.
struct Registry {
  // Held from just before a fork to just after it, so that the child sees no half-done change.
  std::mutex mutex;
  std::array<std::atomic<std::uint64_t>, kSlots> slots{};
  std::uint64_t serial = 0;
};

constinit Registry registry;

void lockRegistryForFork() noexcept {
  registry.mutex.lock();
}

void unlockRegistryInParent() noexcept {
  registry.mutex.unlock();
}

// Only close() here: the child has one thread and may hold any lock.
void closeDescriptorsInChild() noexcept {
  for (auto& slot : registry.slots) {
    const std::uint64_t held = slot.load(std::memory_order_relaxed);
    if (held != 0)
      ::close(static_cast<int>(held & 0xFFFF'FFFFU));
    slot.store(0, std::memory_order_relaxed);
  }
  registry.mutex.unlock();
}

void registerForkHandlersOnce() noexcept {
  static const bool registered = pthread_atfork(lockRegistryForFork, unlockRegistryInParent, closeDescriptorsInChild) == 0;
  static_cast<void>(registered);
}

}  // namespace

ParentOnlyDescriptor::ParentOnlyDescriptor(int fd) noexcept : fd_(fd) {
  if (fd < 0)
    return;
  registerForkHandlersOnce();
  const std::lock_guard lock(registry.mutex);
  for (std::size_t i = 0; i < kSlots; ++i) {
    if (registry.slots[i].load(std::memory_order_relaxed) != 0)
      continue;
    token_ = (++registry.serial << 32) | static_cast<std::uint32_t>(fd);
    registry.slots[i].store(token_, std::memory_order_relaxed);
    slot_ = static_cast<int>(i);
    return;
  }
}

ParentOnlyDescriptor::ParentOnlyDescriptor(ParentOnlyDescriptor&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      slot_(std::exchange(other.slot_, -1)),
      token_(std::exchange(other.token_, 0)) {}

ParentOnlyDescriptor& ParentOnlyDescriptor::operator=(ParentOnlyDescriptor&& other) noexcept {
  if (this != &other) {
    reset();
    fd_ = std::exchange(other.fd_, -1);
    slot_ = std::exchange(other.slot_, -1);
    token_ = std::exchange(other.token_, 0);
  }
  return *this;
}

bool ParentOnlyDescriptor::closedByFork() const noexcept {
  return slot_ >= 0 &&
         registry.slots[static_cast<std::size_t>(slot_)].load(std::memory_order_relaxed) != token_;
}

int ParentOnlyDescriptor::get() const noexcept {
  return closedByFork() ? -1 : fd_;
}

void ParentOnlyDescriptor::reset() noexcept {
  if (fd_ < 0)
    return;
  if (slot_ < 0) {
    ::close(fd_);
  } else {
    // Under the lock: a fork meanwhile sees the descriptor either open and registered, or
    // closed and free.
    const std::lock_guard lock(registry.mutex);
    auto& slot = registry.slots[static_cast<std::size_t>(slot_)];
    if (slot.load(std::memory_order_relaxed) == token_) {
      ::close(fd_);
      slot.store(0, std::memory_order_relaxed);
    }
  }
  fd_ = -1;
  slot_ = -1;
  token_ = 0;
}

}  // namespace quorvel::platform
