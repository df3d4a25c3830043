// ReportLedger: follows every report of the host (a launch, an event, a purchase, a
// statistics call) from the public call that scheduled it to its settlement: answered by the
// service, written to the offline cache, or dropped with a log line.
//
// A report is a Ticket. The public call opens it; every piece of work done for the report
// runs with the ticket as its work context, so that work it schedules in turn (a queued
// block, a request's completion, the replay of the cache that an answer starts) carries the
// same ticket on. The report settles
// when the last holder lets its ticket go. `waitSettled` is what `flush` waits on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cache/QuorvelRequestCacheData.h"
#include "util/WorkContext.h"

namespace quorvel {

class ReportLedger {
  struct State;

 public:
  class Ticket {
   public:
    Ticket(std::shared_ptr<State> state, std::uint64_t id) : state_(std::move(state)), id_(id) {}
    ~Ticket();
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

    std::uint64_t id() const noexcept { return id_; }

    // The request that carries the report, once it is on the wire.
    void attach(const QuorvelRequestCacheData& request);

    enum class AtExit { kept, answered, notBuilt };
    // Process exit: when the report's request is on the wire and unanswered, `keep` writes
    // it (the callback returns the kept file's key) and marks the ticket, so that a late
    // answer neither caches it a second time nor leaves a delivered copy behind.
    AtExit keepAtExit(
        const std::function<std::optional<std::string>(const QuorvelRequestCacheData&)>& keep);

    // The answer of the report's request arrived. Returns the key of the file kept at exit,
    // if there is one: the answer came after all, and the kept copy must go (a delivered
    // request) or stay as it is (a failed one, not to be cached a second time).
    std::optional<std::string> answered();

   private:
    std::shared_ptr<State> state_;
    std::uint64_t id_;
    std::mutex mutex_;
    std::optional<QuorvelRequestCacheData> request_;
    bool answered_ = false;
    bool kept_ = false;
    std::optional<std::string> keptAs_;
  };
  using TicketPtr = std::shared_ptr<Ticket>;

  // Makes `ticket` the current one of this thread for its lifetime.
  using Scope = WorkContextScope;

  ReportLedger();

  // A new report.
  TicketPtr open();
  // The ticket of the report whose work runs on this thread, or nullptr.
  static TicketPtr current();
  // The current ticket, or a new one when no report's work is running.
  TicketPtr currentOrOpen();

  // The id of the newest report opened so far (0 when none).
  std::uint64_t newest() const;
  // Waits until every report up to `mark` has settled, or `timeout` passed. True when settled.
  bool waitSettled(std::uint64_t mark, std::chrono::milliseconds timeout) const;
  // The reports still open, oldest first.
  std::vector<TicketPtr> unsettled() const;

 private:
  struct State {
    mutable std::mutex mutex;
    mutable std::condition_variable settled;
    std::uint64_t nextId = 1;
    std::set<std::uint64_t> open;
    std::vector<std::weak_ptr<Ticket>> tickets;  // pruned as reports settle
    void settle(std::uint64_t id);
  };
  std::shared_ptr<State> state_;
};

// Wraps queued work so that it runs inside the scope of `ticket`.
template <typename Work>
auto carryReport(ReportLedger::TicketPtr ticket, Work work) {
  return withWorkContext(std::move(ticket), std::move(work));
}

}  // namespace quorvel
