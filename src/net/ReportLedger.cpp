#include "net/ReportLedger.h"

#include <algorithm>
#include <utility>

namespace quorvel {
ReportLedger::Ticket::~Ticket() {
  state_->settle(id_);
}

void ReportLedger::Ticket::attach() {
  if (!built_.exchange(true))
    permit_ = state_->takePermit();
}

ReportLedger::ReportLedger() : state_(std::make_shared<State>()) {}

ReportLedger::ReportLedger(std::size_t maxBuiltAhead) : ReportLedger() {
  state_->maxBuiltAhead = std::max<std::size_t>(maxBuiltAhead, 1);
}

void ReportLedger::buildWhenThereIsRoom(const std::shared_ptr<platform::DispatchQueue>& queue,
                                        platform::Work build, Origin origin) {
  {
    const std::lock_guard lock(state_->mutex);
    const bool earlier = origin == Origin::earlierRun;
    // Behind a build woken and not yet run, whatever waits in its own line, and the other
    // line when that one goes first.
    const bool behind = state_->woken > 0 ||
                        (earlier ? !state_->waiting.empty() || !state_->waitingEarlier.empty()
                                 : !state_->waiting.empty() || (!state_->waitingEarlier.empty() &&
                                                                !state_->holdingEarlierLocked()));
    if (behind || state_->builtAhead >= state_->maxBuiltAhead) {
      (earlier ? state_->waitingEarlier : state_->waiting).emplace_back(queue, std::move(build));
      return;
    }
  }
  build();
}

void ReportLedger::holdEarlierRunWhile(std::shared_ptr<const std::atomic<bool>> flag) {
  const std::lock_guard lock(state_->mutex);
  state_->holdEarlier = std::move(flag);
}

void ReportLedger::dropWaiting() {
  decltype(state_->waiting) dropped;
  decltype(state_->waiting) droppedEarlier;
  {
    const std::lock_guard lock(state_->mutex);
    dropped.swap(state_->waiting);
    droppedEarlier.swap(state_->waitingEarlier);
  }
  // Released outside the lock: each build's ticket settles, which takes it.
}

std::shared_ptr<void> ReportLedger::State::takePermit() {
  {
    const std::lock_guard lock(mutex);
    ++builtAhead;
  }
  // The place is given back when its last holder lets it go.
  auto self = shared_from_this();
  return {self.get(), [self](State*) { self->releasePermit(); }};
}

void ReportLedger::State::releasePermit() {
  {
    const std::lock_guard lock(mutex);
    if (builtAhead > 0)
      --builtAhead;
  }
  wakeNextIfRoom();
}

bool ReportLedger::State::holdingEarlierLocked() const {
  return holdEarlier && holdEarlier->load(std::memory_order_relaxed);
}

std::deque<ReportLedger::State::Waiter>* ReportLedger::State::nextLineLocked() {
  if (!waitingEarlier.empty() && (waiting.empty() || !holdingEarlierLocked()))
    return &waitingEarlier;
  return waiting.empty() ? nullptr : &waiting;
}

void ReportLedger::State::wakeNextIfRoom() {
  Waiter next;
  {
    const std::lock_guard lock(mutex);
    // A woken build that has not run yet may still take a place.
    auto* line = builtAhead + woken < maxBuiltAhead ? nextLineLocked() : nullptr;
    if (line == nullptr)
      return;
    next = std::move(line->front());
    line->pop_front();
    ++woken;
  }
  next.first->async([self = shared_from_this(), build = std::move(next.second)] {
    build();
    {
      const std::lock_guard lock(self->mutex);
      --self->woken;
    }
    self->wakeNextIfRoom();
  });
}

ReportLedger::TicketPtr ReportLedger::open(OutboxSlotPtr slot) {
  auto ticket = std::make_shared<Ticket>(state_);
  ticket->outbox_ = std::move(slot);
  const std::lock_guard lock(state_->mutex);
  ticket->id_ = state_->firstId + state_->entries.size();
  state_->entries.push_back(State::Entry{ticket, true});
  return ticket;
}

ReportLedger::TicketPtr ReportLedger::current() {
  // Only tickets are ever set as work contexts.
  return std::static_pointer_cast<Ticket>(currentWorkContext());
}

ReportLedger::TicketPtr ReportLedger::currentOrOpen() {
  if (auto ticket = current())
    return ticket;
  return open();
}

std::uint64_t ReportLedger::newest() const {
  const std::lock_guard lock(state_->mutex);
  return state_->firstId + state_->entries.size() - 1;
}

bool ReportLedger::waitSettled(std::uint64_t mark, std::chrono::milliseconds timeout,
                               std::uint64_t except) const {
  std::unique_lock lock(state_->mutex);
  // Settled reports leave the front at once, so the front is the oldest open one; only the
  // excepted report can hold settled ones behind it.
  return state_->settled.wait_for(lock, timeout, [&] {
    std::uint64_t id = state_->firstId;
    for (const auto& entry : state_->entries) {
      if (id > mark)
        return true;
      if (entry.open && id != except)
        return false;
      ++id;
    }
    return true;
  });
}

std::vector<ReportLedger::TicketPtr> ReportLedger::unsettled() const {
  std::vector<TicketPtr> result;
  const std::lock_guard lock(state_->mutex);
  for (const auto& entry : state_->entries) {
    if (auto ticket = entry.open ? entry.ticket.lock() : nullptr)
      result.push_back(std::move(ticket));
  }
  return result;
}

void ReportLedger::settleKeptForHolder() {
  std::vector<std::pair<std::uint64_t, std::weak_ptr<Ticket>>> open;
  {
    const std::lock_guard lock(state_->mutex);
    std::uint64_t id = state_->firstId;
    for (const auto& entry : state_->entries) {
      if (entry.open)
        open.emplace_back(id, entry.ticket);
      ++id;
    }
  }
  // Outside the lock: the last holder of a ticket settles it, which takes the lock.
  for (const auto& [id, weak] : open) {
    const auto ticket = weak.lock();
    if (ticket && ticket->outbox() && ticket->outbox()->keptForHolder())
      state_->settle(id);
  }
}

void ReportLedger::State::settle(std::uint64_t id) {
  const std::lock_guard lock(mutex);
  if (id >= firstId && id - firstId < entries.size())
    entries[id - firstId].open = false;
  while (!entries.empty() && !entries.front().open) {
    entries.pop_front();
    ++firstId;
  }
  settled.notify_all();
}

}  // namespace quorvel
