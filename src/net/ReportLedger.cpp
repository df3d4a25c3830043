#include "net/ReportLedger.h"

#include <algorithm>

namespace quorvel {
ReportLedger::Ticket::~Ticket() {
  state_->settle(id_);
}

void ReportLedger::Ticket::attach(const QuorvelRequestCacheData& request) {
  const std::lock_guard lock(mutex_);
  request_ = request;
}

ReportLedger::Ticket::AtExit ReportLedger::Ticket::keepAtExit(
    const std::function<std::optional<std::string>(const QuorvelRequestCacheData&)>& keep) {
  // Held across the write on purpose: an answer arriving meanwhile waits to learn the key.
  const std::lock_guard lock(mutex_);
  if (answered_ || kept_)
    return AtExit::answered;
  if (!request_)
    return AtExit::notBuilt;
  kept_ = true;
  keptAs_ = keep(*request_);
  return AtExit::kept;
}

std::optional<std::string> ReportLedger::Ticket::answered() {
  const std::lock_guard lock(mutex_);
  answered_ = true;
  if (!kept_)
    return std::nullopt;
  return keptAs_ ? keptAs_ : std::optional<std::string>(std::string());
}

ReportLedger::ReportLedger() : state_(std::make_shared<State>()) {}

ReportLedger::TicketPtr ReportLedger::open() {
  std::uint64_t id = 0;
  {
    const std::lock_guard lock(state_->mutex);
    id = state_->nextId++;
    state_->open.insert(id);
  }
  auto ticket = std::make_shared<Ticket>(state_, id);
  const std::lock_guard lock(state_->mutex);
  state_->tickets.push_back(ticket);
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
  return state_->nextId - 1;
}

bool ReportLedger::waitSettled(std::uint64_t mark, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->settled.wait_for(
      lock, timeout, [&] { return state_->open.empty() || *state_->open.begin() > mark; });
}

std::vector<ReportLedger::TicketPtr> ReportLedger::unsettled() const {
  std::vector<TicketPtr> result;
  const std::lock_guard lock(state_->mutex);
  for (const auto& weak : state_->tickets) {
    if (auto ticket = weak.lock())
      result.push_back(std::move(ticket));
  }
  std::sort(result.begin(), result.end(),
            [](const TicketPtr& a, const TicketPtr& b) { return a->id() < b->id(); });
  return result;
}

void ReportLedger::State::settle(std::uint64_t id) {
  const std::lock_guard lock(mutex);
  open.erase(id);
  // Expired entries are dropped in batches, so that the list stays near the open count.
  if (tickets.size() > 64 && tickets.size() > 2 * open.size()) {
    std::erase_if(tickets, [](const std::weak_ptr<Ticket>& t) { return t.expired(); });
  }
  settled.notify_all();
}

}  // namespace quorvel
