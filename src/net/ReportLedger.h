// ReportLedger: follows every report of the host (a launch, an event, a purchase, a
// statistics call) from the public call that scheduled it to its settlement: answered by the
// service, written to the offline cache or left waiting in the outbox, or dropped with a log
// line.
//
// A report is a Ticket. The public call opens it; every piece of work done for the report
// runs with the ticket as its work context, so that work it schedules in turn (a queued
// block, a request's completion, the replay of the cache that an answer starts) carries the
// same ticket on. The report settles when the last holder lets its ticket go. `waitSettled`
// is what `flush` waits on.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <quorvel/platform/DispatchQueue.h>

#include "cache/OutboxSlot.h"
#include "util/WorkContext.h"

namespace quorvel {

class ReportLedger {
  struct State;

 public:
  class Ticket {
   public:
    explicit Ticket(std::shared_ptr<State> state) : state_(std::move(state)) {}
    ~Ticket();
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

    // The report's request is built and on the wire: it takes one of the build throttle's
    // places, held until the ticket settles and by whoever keeps `buildPermit()` longer.
    void attach();
    // The throttle's place this report holds (null before attach()). A request that failed
    // and waits in the outbox keeps it until the service answers, so that no more requests
    // are built while they cannot leave: unbuilt reports wait as small intents instead.
    std::shared_ptr<void> buildPermit() const { return permit_; }

    // Where the report waits for its answer, and when the host's call made it: given to
    // open(), before the ticket is shared (a flush reads it from other threads).
    const OutboxSlotPtr& outbox() const noexcept { return outbox_; }
    std::uint64_t id() const noexcept { return id_; }
    std::optional<platform::TimePoint> callTime() const {
      return outbox_ ? std::optional(outbox_->acceptedAt()) : std::nullopt;
    }

   private:
    std::shared_ptr<State> state_;
    friend class ReportLedger;
    std::uint64_t id_ = 0;  // set once by open(), before the ticket is shared
    std::atomic<bool> built_{false};
    std::shared_ptr<void> permit_;  // set once by attach()
    OutboxSlotPtr outbox_;
  };
  using TicketPtr = std::shared_ptr<Ticket>;

  // Makes `ticket` the current one of this thread for its lifetime.
  using Scope = WorkContextScope;

  ReportLedger();

  // A new report; `slot`: where it waits in the outbox, if it does.
  TicketPtr open(OutboxSlotPtr slot = nullptr);
  // The ticket of the report whose work runs on this thread, or nullptr.
  static TicketPtr current();
  // The current ticket, or a new one when no report's work is running.
  TicketPtr currentOrOpen();

  // The id of the newest report opened so far (0 when none).
  std::uint64_t newest() const;
  // Waits until every report up to `mark` has settled, or `timeout` passed. True when settled.
  // `except` is left out: the report whose work runs on the waiting thread, which cannot
  // settle before that work returns.
  bool waitSettled(std::uint64_t mark, std::chrono::milliseconds timeout,
                   std::uint64_t except = 0) const;
  // The reports still open, oldest first.
  std::vector<TicketPtr> unsettled() const;
  // Settles the open reports that went to the process holding the data directory: their
  // tickets live on in builds that wait for the directory, but nothing is left to do here.
  void settleKeptForHolder();

  // Requests built and not yet answered, at most this many by default. Payloads are built
  // no faster than the network takes them, so that a burst of reports costs memory for what
  // is on its way, not for all of it: the rest waits as the small closures that build them.
  static constexpr std::size_t kMaxBuiltAhead = 128;
  explicit ReportLedger(std::size_t maxBuiltAhead);
  // Runs `build` at once while fewer than the limit of requests are built and unanswered
  // and none is waiting; otherwise keeps it, and posts it on `queue`, in order, once an
  // answer makes room. An earlier run's reports wait in a line of their own, served first,
  // except while `holdEarlierRunWhile`'s flag is set: then this run's reports go first.
  enum class Origin { thisRun, earlierRun };
  void buildWhenThereIsRoom(const std::shared_ptr<platform::DispatchQueue>& queue,
                            platform::Work build, Origin origin = Origin::thisRun);
  // While `flag` is set (the outbox cannot write: this run's reports live in memory only, and
  // a kill takes them), an earlier run's reports, which wait safely on disk, build after
  // this run's. Set once, before the first build.
  void holdEarlierRunWhile(std::shared_ptr<const std::atomic<bool>> flag);
  // Lets the builds still waiting for room go, unrun: for a tracker that has ended, whose
  // reports are in the outbox already. A waiting build holds its report's ticket, which holds
  // the ledger: were they kept, a place that is never given back (a request failed after
  // its outbox was released) would keep them all, and the ledger, for ever.
  void dropWaiting();

 private:
  struct State : std::enable_shared_from_this<State> {
    mutable std::mutex mutex;
    mutable std::condition_variable settled;
    // The reports from the oldest open one on, by id: front() has id `firstId`.
    struct Entry {
      std::weak_ptr<Ticket> ticket;
      bool open = true;
    };
    std::uint64_t firstId = 1;
    std::deque<Entry> entries;
    std::size_t maxBuiltAhead = kMaxBuiltAhead;
    std::size_t builtAhead = 0;
    std::size_t woken = 0;  // builds taken off a line and posted, not yet run
    using Waiter = std::pair<std::shared_ptr<platform::DispatchQueue>, platform::Work>;
    std::deque<Waiter> waiting;         // this run's
    std::deque<Waiter> waitingEarlier;  // an earlier run's
    std::shared_ptr<const std::atomic<bool>> holdEarlier;
    void settle(std::uint64_t id);
    std::shared_ptr<void> takePermit();
    void releasePermit();
    // Wakes the next waiting build while there is room. Runs after a place is given back and
    // after each woken build: one that took no place (dropped, stopped, skipped) wakes the
    // next itself, or the line would stall with places free.
    void wakeNextIfRoom();
    bool holdingEarlierLocked() const;
    std::deque<Waiter>* nextLineLocked();
  };
  std::shared_ptr<State> state_;
};

// Wraps queued work so that it runs inside the scope of `ticket`.
template <typename Work>
auto carryReport(ReportLedger::TicketPtr ticket, Work work) {
  return withWorkContext(std::move(ticket), std::move(work));
}

}  // namespace quorvel
