// The host's consent as every part of the library reads it: stopped or running, and a
// generation that each stop and each forgetting raises. Work that may outlive a stop (a send,
// the answer to it, a retry) takes the generation where it starts and applies nothing once
// the gate no longer holds for it, so that nothing of it lands after the stop returned.
#pragma once

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include <quorvel/platform/Clock.h>

namespace quorvel::platform {

class ConsentGate {
 public:
  using Generation = std::uint64_t;
  // How soon a stop made by another process on the same data directory is seen here.
  static constexpr std::chrono::seconds kSharedCheckInterval{1};

  // `readStored` says whether a stop was kept from an earlier start; it is asked once, at the
  // first question, so that building the tracker reads no preferences. `stoppedElsewhere`
  // (may be empty) says whether another process stopped the library since; while running it
  // is asked at most once per kSharedCheckInterval of `clock`.
  ConsentGate(std::function<bool()> readStored, std::function<bool()> stoppedElsewhere = {},
              std::shared_ptr<const Clock> clock = nullptr);

  // Runs, on the thread that asked, once a stop made by another process is seen (it must
  // only post work). Set before the gate is shared.
  void onStoppedElsewhere(std::function<void()> handler) {
    stoppedElsewhereSeen_ = std::move(handler);
  }

  // Looks whether another process stopped the library when the last look is
  // kSharedCheckInterval old: a file's status, so only work of the library's own threads and
  // calls that are not the host's hot path ask this.
  bool stopped() const;
  // What is known without looking elsewhere: a flag read, for the host's tracking calls, which
  // must cost no system call. The work such a call hands over asks stopped() (and drops the
  // call if the look finds a stop made elsewhere), so such a stop still holds within the
  // interval.
  bool knownStopped() const;
  // The stop in force was seen made by another process, not made here.
  bool stopSeenElsewhere() const noexcept { return stopSeenElsewhere_.load(); }
  Generation generation() const noexcept { return generation_.load(std::memory_order_acquire); }
  // True while the library runs and no stop or forgetting came since `start` was taken.
  bool holds(Generation start) const { return !stopped() && generation() == start; }
  // Stopped from now on; work begun before no longer holds.
  void stop() const;
  // Stops, then waits until no work that began while running is still inside a hold: once it
  // returns, nothing of that work writes or sends any more. Never from inside a hold.
  void stopAndSettle() const;
  void run();
  // Looks at once whether another process stopped the library (its marker was just seen made),
  // instead of at the next question after the interval.
  void lookElsewhereNow() const;

  // Taken by work that writes the install's state or hands a report on (a build, the storing
  // of an answer, a store's write), around its check of the gate and the writes that follow
  // it, so that a stop cannot fall between the two. Never held across a call into the host.
  // A thread that holds the gate already may take it again (a build writes the preferences
  // through a store that holds it too); a hold stays on the thread that took it.
  class Hold {
   public:
    Hold() = default;
    Hold(Hold&& other) noexcept : gate_(std::exchange(other.gate_, nullptr)) {}
    Hold& operator=(Hold&& other) noexcept;
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    ~Hold() { release(); }

   private:
    friend class ConsentGate;
    explicit Hold(const ConsentGate* gate) : gate_(gate) {}
    void release() noexcept;
    const ConsentGate* gate_ = nullptr;
  };
  [[nodiscard]] Hold hold() const;

 private:
  void checkElsewhere() const;

  std::function<bool()> readStored_;
  std::function<bool()> stoppedElsewhere_;
  std::function<void()> stoppedElsewhereSeen_;
  std::shared_ptr<const Clock> clock_;
  mutable std::once_flag storedRead_;
  // Set once the stored stop was read: after that a question is a flag read, with no call into
  // the thread library.
  mutable std::atomic<bool> storedReadDone_{false};
  mutable std::atomic<bool> stopped_{false};
  mutable std::atomic<bool> stopSeenElsewhere_{false};
  mutable std::atomic<Generation> generation_{0};
  static constexpr std::int64_t kNeverChecked = INT64_MIN;
  mutable std::atomic<std::int64_t> lastCheckMs_{kNeverChecked};
  mutable std::shared_mutex settling_;
};

}  // namespace quorvel::platform
