// What a C handle holds: the tracker, the host's callbacks and its log function, which are
// guarded so that none runs once the host has replaced them or destroyed the handle.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>
#include <quorvel/Transport.h>
#include <quorvel/quorvel.h>

#include "platform/ForkGeneration.h"

namespace quorvel::capi {

// How long destroy waits for transport sends under way on other threads.
inline constexpr std::chrono::milliseconds kTransportCallBound{10000};

// The host's notice that it may free what its transport and callbacks use: sent once, on a
// thread of its own, when the last holder lets go (the handle, until destroy has finished it,
// and each call into the host under way). Destroy's wait is bounded; this notice is not.
class HostRelease {
 public:
  HostRelease(void (*release)(void*), void* userData) noexcept
      : release_(release), userData_(userData) {}
  HostRelease(const HostRelease&) = delete;
  HostRelease& operator=(const HostRelease&) = delete;
  ~HostRelease();

  // The handle was never handed to the host: nothing to notify.
  void disarm() noexcept { release_ = nullptr; }

 private:
  void (*release_)(void*);
  void* userData_;
};
using ReleaseHold = std::shared_ptr<HostRelease>;

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
  explicit CallGate(ReleaseHold release = nullptr) : release_(std::move(release)) {}
  // False once closed: the call must not be made. Otherwise `hold` keeps the host's release
  // back until the call has left.
  bool enter(ReleaseHold& hold);
  void leave();
  void close(std::chrono::milliseconds bound);
  ReleaseHold release() const { return release_; }
  // The tracker goes now (after its waits for the calls under way, whose answers it still
  // takes): a request the host still holds is no longer awaited.
  void giveUpHeld() noexcept { givenUp_ = true; }
  bool gaveUpHeld() const noexcept { return givenUp_.load(); }

 private:
  std::mutex mutex_;
  std::condition_variable idle_;
  int running_ = 0;
  bool closed_ = false;
  std::atomic<bool> givenUp_{false};
  ReleaseHold release_;
};

// Calls into the host of one kind (its callbacks, its log function), shared with the library's
// threads. A call runs outside the lock; a replacement waits for the calls under way, unless it
// is made from inside one of them.
template <typename Calls>
class HostCalls {
 public:
  // `handle`: what identifies the handle's host calls (see HostCallScope); `release`: the
  // host's release, held back by each call under way until closed.
  HostCalls(const void* handle, ReleaseHold release)
      : handle_(handle), release_(std::move(release)) {}

  // Runs `call` with the current calls unless closed. False when closed.
  template <typename Call>
  bool invoke(Call&& call) {
    Calls current{};
    ReleaseHold hold;
    {
      const std::lock_guard lock(mutex_);
      if (closed_)
        return false;
      current = calls_;
      hold = release_;
      ++running_;
    }
    // Counted out however the call ends, a thread's forced unwind included.
    const Running running(*this, std::move(hold));
    const HostCallScope inside(handle_, HostCallScope::Kind::callback);
    call(current);
    return true;
  }
  void replace(const Calls& calls) {
    std::unique_lock lock(mutex_);
    calls_ = calls;
    waitForCallsLocked(lock);
  }
  // The calls last set, closed or not.
  Calls lastSet() {
    const std::lock_guard lock(mutex_);
    return calls_;
  }
  // No call of this box runs once this returns (but for one that makes the call).
  void close() {
    ReleaseHold released;  // let go outside the lock
    std::unique_lock lock(mutex_);
    closed_ = true;
    released = std::move(release_);
    waitForCallsLocked(lock);
  }

 private:
  class Running {
   public:
    Running(HostCalls& calls, ReleaseHold hold) : calls_(calls), hold_(std::move(hold)) {}
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() {
      const std::lock_guard lock(calls_.mutex_);
      if (--calls_.running_ == 0)
        calls_.idle_.notify_all();
    }

   private:
    HostCalls& calls_;
    ReleaseHold hold_;  // goes after the count: the host's release comes last
  };

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
  ReleaseHold release_;
};

using CallbackBox = HostCalls<quorvel_callbacks>;

// The host's log function; none set: the platform's own system log.
struct LogTarget {
  quorvel_log_callback callback = nullptr;
  void* userData = nullptr;
};
using LogBox = HostCalls<LogTarget>;

// A system log that goes to the host's log function whenever one is set in `box`, else to
// `fallback`.
std::shared_ptr<platform::SystemLog> hostLog(std::shared_ptr<platform::SystemLog> fallback,
                                             std::shared_ptr<LogBox> box);
// A platform whose system log goes to the host's log function whenever one is set in `box`.
std::shared_ptr<const Platform> withHostLog(std::shared_ptr<const Platform> platform,
                                            std::shared_ptr<LogBox> box);

}  // namespace quorvel::capi

namespace quorvel::capi {

// The host's calls under way on one handle: destroy waits for them (a flush at most its own
// bound), so that a call begun before destroy never runs on a freed tracker; one begun while
// destroy waits is refused. Two atomic steps per call, no lock.
class HandleCalls {
 public:
  bool enter() noexcept {
    calls_.fetch_add(1);
    if (!closing_.load())
      return true;
    leave();
    return false;
  }
  // The decrement is the last touch of the handle: once it reaches 0, destroy may free it.
  void leave() noexcept { calls_.fetch_sub(1); }
  // Refuses the calls that begin from now.
  void close() noexcept { closing_.store(true); }
  // Looks every millisecond: no call has to wake destroy, which a call could only do after
  // its decrement, on a handle that may be freed by then.
  void closeAndWait() noexcept {
    close();
    while (calls_.load() != 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

 private:
  std::atomic<int> calls_{0};
  std::atomic<bool> closing_{false};
};

}  // namespace quorvel::capi

struct quorvel_tracker {
  // `log`: a box the platform's own services already write to, else one of its own.
  explicit quorvel_tracker(std::shared_ptr<quorvel::capi::CallGate> gate,
                           std::shared_ptr<quorvel::capi::LogBox> logBox = nullptr)
      : release(gate->release()), transport(std::move(gate)) {
    if (logBox)
      log = std::move(logBox);
  }

  // First, so that it goes last: the host's release never comes before the tracker is gone.
  quorvel::capi::ReleaseHold release;
  // Its address identifies the handle's host calls, in the boxes below too.
  std::shared_ptr<quorvel::capi::CallGate> transport;
  std::shared_ptr<quorvel::capi::CallbackBox> callbacks =
      std::make_shared<quorvel::capi::CallbackBox>(transport.get(), release);
  std::shared_ptr<quorvel::capi::LogBox> log =
      std::make_shared<quorvel::capi::LogBox>(transport.get(), release);
  std::shared_ptr<quorvel::QuorvelTrackerDelegate> delegate;
  std::unique_ptr<quorvel::QuorvelTracker> tracker;
  quorvel::capi::HandleCalls calls;
  // The process image that made it: a forked child's copy is inert and never destroyed.
  std::uint64_t forkGeneration = quorvel::platform::forkGeneration();
  bool inheritedByFork() const noexcept {
    return forkGeneration != quorvel::platform::forkGeneration();
  }
};

namespace quorvel::capi {

// A handle for a tracker on `platform`, whose host transport (if any) goes through `gate`.
// The handles this process has not destroyed: at its exit, what each accepted is written to
// the disk (an engine that ends with exit() and no destroy loses nothing it tracked).
// Unregistered first thing in a destroy.
void keepAtExit(quorvel_tracker* handle);
void noLongerKeptAtExit(quorvel_tracker* handle) noexcept;

// `wiredLog`: the box that `platform`'s system log already writes to (made with hostLog over
// the gate, so that the platform's services log through it from their creation on); without
// one, the handle's own box is wired over the platform's log here.
quorvel_tracker* makeHandle(std::shared_ptr<const Platform> platform,
                            std::shared_ptr<CallGate> gate,
                            std::shared_ptr<LogBox> wiredLog = nullptr) noexcept;
// Whether the current thread is inside one of the handle's own calls into the host.
inline bool insideHostCall(const quorvel_tracker& handle) noexcept {
  return HostCallScope::inside(handle.transport.get());
}

// A transport that hands each request to the host's C function.
std::shared_ptr<Transport> makeCTransport(quorvel_transport_send send, void* userData,
                                          std::shared_ptr<CallGate> gate);
// The text of (pointer, length), or nullopt for NULL.
std::optional<std::string> textOf(const char* data, std::size_t length);
// NULL with a length: a host's mistake, refused rather than taken as "not set".
inline bool badText(const char* data, std::size_t length) {
  return data == nullptr && length > 0;
}
// Copies `text` out through the caller's buffer.
quorvel_status copyOut(std::string_view text, char* buffer, std::size_t capacity,
                       std::size_t* length);

}  // namespace quorvel::capi
