// One report of the outbox and its state from the host's call to its outcome: sent or not,
// settled how, failed or retrying here, and whether a copy may have reached the service. Read
// on any thread; changed by the outbox (its friend) and by the sends.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include <quorvel/platform/Clock.h>

namespace quorvel {

// One report in the outbox. Its number in the store is given by the outbox's queue, after
// the store was read, so that the host's thread never waits for the storage.
class OutboxSlot {
 public:
  explicit OutboxSlot(platform::TimePoint acceptedAt) : acceptedAt_(acceptedAt) {}
  platform::TimePoint acceptedAt() const noexcept { return acceptedAt_; }
  // Claims the report for one send; false while it is already on the wire.
  bool startSending() noexcept { return !inFlight_.exchange(true); }
  void stopSending() noexcept { inFlight_ = false; }
  // True while it keeps a place in the build throttle (a failed request waiting).
  bool holdsPlace();
  // Claims the report for its one request; false once a request was made for it. Work that
  // runs inside a report (a delegate called from its answer) may make requests of its own.
  bool claimForRequest() noexcept { return !requestMade_.exchange(true); }
  // Answered, dropped, or handed to the process that holds the data directory: nothing more
  // is done for it here.
  bool settled() const noexcept { return outcome_.load() != Outcome::open; }
  // Handed to the process that holds the data directory, which sends it: settled for a flush
  // here, though the build that waits for the directory still holds the report.
  bool keptForHolder() const noexcept { return keptForHolder_.load(); }
  // Settled without the service taking it: refused (4xx), dropped (over the bounds or the
  // age, by a rule, forgotten), or gone to the kept-request folder after a failed send to wait
  // there for a later one. Handed to the holder is taken: the holder sends it.
  bool settledUntaken() const noexcept { return outcome_.load() == Outcome::untaken; }
  // A send of it failed in this process (in transport, or answered 5xx or 429).
  bool failedHere() const noexcept { return failures_.load() > 0; }
  // A copy sent earlier may have reached the service: the next copy to leave is a repeat.
  bool mayHaveReached() const noexcept { return reached_.load(); }

 private:
  friend class Outbox;
  // Keeps `hold` (the build throttle's place of a failed request) until the report settles.
  void holdUntilSettled(std::shared_ptr<void> hold);
  // Marks the report settled, taken by the service (or the holder) or not; false when it
  // already was.
  bool settle(bool taken);
  enum class Outcome : std::uint8_t { open, taken, untaken };
  std::mutex holdMutex_;
  std::shared_ptr<void> hold_;
  const platform::TimePoint acceptedAt_;
  std::int64_t id_ = 0;      // set and read on the outbox's queue only
  bool earlierRun_ = false;  // left by an earlier run: set and read under the store's lock
  std::atomic<bool> inFlight_{false};
  std::atomic<bool> requestMade_{false};
  std::atomic<Outcome> outcome_{Outcome::open};  // set once: no further change
  std::atomic<bool> keptForHolder_{false};
  std::atomic<std::uint32_t> failures_{0};
  std::atomic<bool> replay_{false};  // sent again from an earlier run, not yet come back
  // Answered 5xx or 429: the service did not take it, and it goes again after a backoff.
  std::atomic<bool> retrying_{false};
  // A copy sent earlier may have reached the service (sent by an earlier run and never
  // answered, or failed in transport after its connection was made): a later refusal of
  // another copy does not undo that, and every later copy is a repeat.
  std::atomic<bool> reached_{false};
};
using OutboxSlotPtr = std::shared_ptr<OutboxSlot>;

}  // namespace quorvel
