// What a C handle holds: the tracker, the host's callbacks and its log function, which are
// guarded so that none runs once the host has replaced them or destroyed the handle.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>
#include <quorvel/Transport.h>
#include <quorvel/quorvel.h>

#include "platform/ForkGeneration.h"

namespace quorvel::capi {

// How long destroy waits for transport sends under way on other threads.
inline constexpr std::chrono::milliseconds kTransportCallBound{10000};

// Marks the current thread as inside a call into the host made for one handle (its callbacks,
// its log function, its transport), for the scope's life. Calls of other handles the thread is
// inside do not count: only a handle's own call under way would wait for its caller.
class HostCallScope {
 public:
  enum class Kind { callback, send };
  HostCallScope(const void* handle, Kind kind) noexcept;
  HostCallScope(const HostCallScope&) = delete;
  HostCallScope& operator=(const HostCallScope&) = delete;
  ~HostCallScope();

  // Inside one of the handle's calls (of that kind only, when one is given).
  static bool inside(const void* handle, std::optional<Kind> kind = std::nullopt) noexcept;

 private:
  // The innermost scope of the thread: scopes nest on a thread's stack, so a list through
  // them needs no allocation.
  static HostCallScope*& innermost() noexcept;

  const void* handle_;
  Kind kind_;
  HostCallScope* outer_;
};

// Calls into the host's transport, counted so that closing waits for those under way (within
// a bound), except those of the closing thread itself. Its address identifies its handle's
// host calls.
class CallGate {
 public:
  // False once closed: the call must not be made.
  bool enter();
  void leave();
  void close(std::chrono::milliseconds bound);

 private:
  std::mutex mutex_;
  std::condition_variable idle_;
  int running_ = 0;
  bool closed_ = false;
};

// Calls into the host of one kind (its callbacks, its log function), shared with the library's
// threads. A call runs outside the lock; a replacement waits for the calls under way, unless it
// is made from inside one of them.
template <typename Calls>
class HostCalls {
 public:
  // `handle`: what identifies the handle's host calls (see HostCallScope).
  explicit HostCalls(const void* handle) : handle_(handle) {}

  // Runs `call` with the current calls unless closed. False when closed.
  template <typename Call>
  bool invoke(Call&& call) {
    Calls current{};
    {
      const std::lock_guard lock(mutex_);
      if (closed_)
        return false;
      current = calls_;
      ++running_;
    }
    {
      const HostCallScope inside(handle_, HostCallScope::Kind::callback);
      call(current);
    }
    const std::lock_guard lock(mutex_);
    if (--running_ == 0)
      idle_.notify_all();
    return true;
  }
  void replace(const Calls& calls) {
    std::unique_lock lock(mutex_);
    calls_ = calls;
    waitForCallsLocked(lock);
  }
  // No call of this box runs once this returns (but for one that makes the call).
  void close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    waitForCallsLocked(lock);
  }

 private:
  void waitForCallsLocked(std::unique_lock<std::mutex>& lock) {
    // From inside this handle's callback the call under way is the caller's own: waiting would
    // never end. From inside its send, the callbacks on other threads are waited for as the
    // header says.
    if (!HostCallScope::inside(handle_, HostCallScope::Kind::callback))
      idle_.wait(lock, [this] { return running_ == 0; });
  }

  const void* handle_;
  std::mutex mutex_;
  std::condition_variable idle_;
  Calls calls_{};
  int running_ = 0;
  bool closed_ = false;
};

using CallbackBox = HostCalls<quorvel_callbacks>;

// The host's log function; none set: the platform's own system log.
struct LogTarget {
  quorvel_log_callback callback = nullptr;
  void* userData = nullptr;
};
using LogBox = HostCalls<LogTarget>;

// A platform whose system log goes to the host's log function whenever one is set in `box`.
std::shared_ptr<const Platform> withHostLog(std::shared_ptr<const Platform> platform,
                                            std::shared_ptr<LogBox> box);

}  // namespace quorvel::capi

struct quorvel_tracker {
  explicit quorvel_tracker(std::shared_ptr<quorvel::capi::CallGate> gate)
      : transport(std::move(gate)) {}

  // First: its address identifies the handle's host calls, in the boxes below too.
  std::shared_ptr<quorvel::capi::CallGate> transport;
  std::shared_ptr<quorvel::capi::CallbackBox> callbacks =
      std::make_shared<quorvel::capi::CallbackBox>(transport.get());
  std::shared_ptr<quorvel::capi::LogBox> log =
      std::make_shared<quorvel::capi::LogBox>(transport.get());
  std::shared_ptr<quorvel::QuorvelTrackerDelegate> delegate;
  std::unique_ptr<quorvel::QuorvelTracker> tracker;
  // The process image that made it: a forked child's copy is inert and never destroyed.
  std::uint64_t forkGeneration = quorvel::platform::forkGeneration();
  bool inheritedByFork() const noexcept {
    return forkGeneration != quorvel::platform::forkGeneration();
  }
};

namespace quorvel::capi {

// A handle for a tracker on `platform`, whose host transport (if any) goes through `gate`.
quorvel_tracker* makeHandle(std::shared_ptr<const Platform> platform,
                            std::shared_ptr<CallGate> gate) noexcept;
// Whether the current thread is inside one of the handle's own calls into the host.
inline bool insideHostCall(const quorvel_tracker& handle) noexcept {
  return HostCallScope::inside(handle.transport.get());
}

// A transport that hands each request to the host's C function.
std::shared_ptr<Transport> makeCTransport(quorvel_transport_send send, void* userData,
                                          std::shared_ptr<CallGate> gate);
// The text of (pointer, length), or nullopt for NULL.
std::optional<std::string> textOf(const char* data, std::size_t length);
// Copies `text` out through the caller's buffer.
quorvel_status copyOut(std::string_view text, char* buffer, std::size_t capacity,
                       std::size_t* length);

}  // namespace quorvel::capi
