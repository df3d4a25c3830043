// What a C handle holds: the tracker, the host's callbacks and its log function, which are
// guarded so that none runs once the host has replaced them or destroyed the handle.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>

#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>
#include <quorvel/Transport.h>
#include <quorvel/quorvel.h>

#include "platform/ForkGeneration.h"

namespace quorvel::capi {

// How long destroy waits for transport sends under way on other threads.
inline constexpr std::chrono::milliseconds kTransportCallBound{10000};

// How many calls into the host (callbacks, transport sends) the current thread is inside.
int& hostCallDepth();

// Calls into the host's transport, counted so that closing waits for those under way (within
// a bound), except those of the closing thread itself.
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
    ++hostCallDepth();
    call(current);
    --hostCallDepth();
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
    // From inside a call the call under way is the caller's own: waiting would never end.
    if (hostCallDepth() == 0)
      idle_.wait(lock, [this] { return running_ == 0; });
  }

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
  std::shared_ptr<quorvel::capi::CallbackBox> callbacks =
      std::make_shared<quorvel::capi::CallbackBox>();
  std::shared_ptr<quorvel::capi::CallGate> transport = std::make_shared<quorvel::capi::CallGate>();
  std::shared_ptr<quorvel::capi::LogBox> log = std::make_shared<quorvel::capi::LogBox>();
  std::shared_ptr<quorvel::QuorvelTrackerDelegate> delegate;
  std::unique_ptr<quorvel::QuorvelTracker> tracker;
  // The process image that made it: a forked child's copy is inert and never destroyed.
  std::uint64_t forkGeneration = quorvel::platform::forkGeneration();
  bool inheritedByFork() const noexcept {
    return forkGeneration != quorvel::platform::forkGeneration();
  }
};

namespace quorvel::capi {

// A transport that hands each request to the host's C function.
std::shared_ptr<Transport> makeCTransport(quorvel_transport_send send, void* userData,
                                          std::shared_ptr<CallGate> gate);
// The text of (pointer, length), or nullopt for NULL.
std::optional<std::string> textOf(const char* data, std::size_t length);
// Copies `text` out through the caller's buffer.
quorvel_status copyOut(std::string_view text, char* buffer, std::size_t capacity,
                       std::size_t* length);

}  // namespace quorvel::capi
