// The outbox's front: the host's calls (a report accepted, built, answered, dropped), the
// buffer they append to, the slots' own state, and the figures.
#include "cache/Outbox.h"

#include <algorithm>
#include <thread>
#include <variant>

#include "cache/OutboxShared.h"

namespace quorvel {

using namespace outbox_internal;

void OutboxSlot::holdUntilSettled(std::shared_ptr<void> hold) {
  const std::lock_guard lock(holdMutex_);
  if (!settled())
    hold_ = std::move(hold);
}

bool OutboxSlot::holdsPlace() {
  const std::lock_guard lock(holdMutex_);
  return hold_ != nullptr;
}

bool OutboxSlot::settle(bool taken) {
  auto open = Outcome::open;
  if (!outcome_.compare_exchange_strong(open, taken ? Outcome::taken : Outcome::untaken))
    return false;
  std::shared_ptr<void> released;  // let go outside the lock: it may start a build
  {
    const std::lock_guard lock(holdMutex_);
    released.swap(hold_);
  }
  return true;
}

Outbox::Outbox(std::shared_ptr<platform::OutboxStore> store,
               std::shared_ptr<platform::DispatchQueue> queue,
               std::shared_ptr<platform::DispatchQueue> syncQueue,
               std::shared_ptr<const platform::Clock> clock, std::shared_ptr<const Log> log,
               Limits limits)
    : store_(std::move(store)),
      queue_(std::move(queue)),
      syncQueue_(std::move(syncQueue)),
      clock_(std::move(clock)),
      log_(std::move(log)),
      limits_(limits) {}

Outbox::~Outbox() {
  drainAndSync();
}

void Outbox::setLimits(Limits limits) {
  const std::lock_guard lock(storeMutex_);
  limits_ = limits;
}

OutboxSlotPtr Outbox::accept(OutboxIntent intent, platform::TimePoint at) {
  auto slot = std::make_shared<OutboxSlot>(at);
  accepted_.fetch_add(1, std::memory_order_relaxed);
  waiting_.fetch_add(1, std::memory_order_relaxed);
  enqueue(Put{slot, {}, std::move(intent), nullptr, nullptr, false});
  return slot;
}

OutboxSlotPtr Outbox::acceptBuilt() {
  auto slot = std::make_shared<OutboxSlot>(clock_->now());
  accepted_.fetch_add(1, std::memory_order_relaxed);
  waiting_.fetch_add(1, std::memory_order_relaxed);
  return slot;
}

void Outbox::built(const OutboxSlotPtr& slot, const QuorvelRequestCacheData& request,
                   std::function<void()> send) {
  if (!slot || slot->settled())
    return;
  std::string content = requestRecord(slot->acceptedAt(), request, true);
  enqueue(Put{slot, std::move(content), std::nullopt,
              std::make_shared<const QuorvelRequestCacheData>(request), std::move(send),
              request.carriesLaunchCounter()});
}

bool Outbox::settleCounted(const OutboxSlotPtr& slot, std::atomic<std::uint64_t>& counter) {
  if (!slot)
    return false;
  replayCameBack(slot);
  if (!slot->settle(&counter == &delivered_ || (&counter == &handedOver_ && slot->keptForHolder_)))
    return false;
  slot->stopSending();
  if (slot->retrying_.exchange(false))
    retrying_.fetch_sub(1, std::memory_order_relaxed);
  counter.fetch_add(1, std::memory_order_relaxed);
  waiting_.fetch_sub(1, std::memory_order_relaxed);
  enqueue(Remove{slot});
  return true;
}

void Outbox::noteFolderAnswer(long status) {
  if (status >= 200 && status < 300)
    delivered_.fetch_add(1, std::memory_order_relaxed);
  else if (status >= 400 && status < 500 && status != 429)
    refused_.fetch_add(1, std::memory_order_relaxed);
}

void Outbox::answered(const OutboxSlotPtr& slot) {
  if (settleCounted(slot, delivered_))
    writeNowIfExiting();
}

void Outbox::refused(const OutboxSlotPtr& slot) {
  if (settleCounted(slot, refused_))
    writeNowIfExiting();
}

// Once the exit flush is over the process ends within moments: a removal posted to the queue
// would often come after the end (the queue first waits for the exit's own write), and a report
// the service had answered would go again at the next start. The answer's thread (never one
// that holds the lock) writes it before the answer's handling returns.
void Outbox::writeNowIfExiting() noexcept {
  if (!exitFlushOver_.load(std::memory_order_relaxed) ||
      platform::forkGeneration() != forkGeneration_)
    return;
  try {
    const std::lock_guard lock(storeMutex_);
    writeBufferedLocked();
  } catch (...) {
    // The queue's write, already posted, tries again.
  }
}

void Outbox::dropped(const OutboxSlotPtr& slot, DropReason reason) {
  settleCounted(slot, reason == DropReason::rule         ? droppedByRule_
                      : reason == DropReason::bytes      ? droppedForBytes_
                      : reason == DropReason::handedOver ? handedOver_
                                                         : droppedForAge_);
}

void Outbox::failed(const OutboxSlotPtr& slot, std::shared_ptr<void> hold, bool mayHaveArrived) {
  answeredRetryLater(slot, std::nullopt, std::move(hold), mayHaveArrived);
}

void Outbox::enqueue(Op op) {
  // A built request waits for its record before it leaves: it is written at once. What the
  // host's calls accept, and removals, wait for a short window, so that a burst costs the
  // host's thread no wake-up of the writer per call, and the disk one transaction per window.
  const auto* put = std::get_if<Put>(&op);
  bool writeNow = (put != nullptr && put->then) || exitFlushOver_.load(std::memory_order_relaxed);
  {
    const std::lock_guard lock(bufferMutex_);
    buffer_.push_back(std::move(op));
    writeNow = writeNow || buffer_.size() >= kMaxBatch;  // a burst: no need to wait for more
  }
  if (writeNow) {
    if (!promptWriteScheduled_.exchange(true))
      runLocked(&Outbox::writeBufferedLocked);
  } else if (!writeScheduled_.exchange(true)) {
    runLocked(&Outbox::writeBufferedLocked, kBatchWindow);
  }
}

// Runs `method` on the outbox's queue with the store's lock held, if the outbox still exists.
void Outbox::runLocked(void (Outbox::*method)(), std::chrono::nanoseconds after) {
  auto work = whileAliveLocked([method](Outbox& self) { (self.*method)(); });
  if (after > std::chrono::nanoseconds::zero())
    queue_->asyncAfter(after, std::move(work));
  else
    queue_->async(std::move(work));
}

std::uint64_t Outbox::unansweredNotOnDisk() noexcept {
  const std::lock_guard lock(storeMutex_);
  std::uint64_t count = 0;
  for (const auto& [id, held] : held_) {
    if (held.slot && !held.slot->settled() && !held.onDisk)
      ++count;
  }
  return count;
}

std::unique_lock<std::mutex> Outbox::storeLockBy(Deadline deadline) {
  std::unique_lock lock(storeMutex_, std::try_to_lock);
  while (!lock.owns_lock() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    lock.try_lock();
  }
  return lock;
}

// A store not opened yet is opened on the writer's queue, never on the flushing thread (a
// healing may take long): what an earlier run left is unknown until then.
bool Outbox::earlierRunUnreadLocked() {
  if (!opened_ && !released_) {
    if (!openPosted_.exchange(true))
      runLocked(&Outbox::openLocked);
    return true;
  }
  return store_ && loadedUpTo_ < leftoversEnd_;
}

std::optional<std::vector<OutboxSlotPtr>> Outbox::unsettledSlots(bool& earlierRunUnread,
                                                                 Deadline deadline) {
  std::vector<OutboxSlotPtr> slots;
  const auto keep = [&slots](const OutboxSlotPtr& slot) {
    if (slot && !slot->settled())
      slots.push_back(slot);
  };
  const auto lock = storeLockBy(deadline);
  if (!lock.owns_lock())
    return std::nullopt;
  earlierRunUnread = earlierRunUnreadLocked();
  {
    const std::lock_guard buffer(bufferMutex_);
    for (const auto& op : buffer_) {
      if (const auto* put = std::get_if<Put>(&op))
        keep(put->slot);
    }
  }
  for (const auto& [id, held] : held_)
    keep(held.slot);
  for (const auto& left : leftovers_)
    keep(left.slot);
  for (const auto& left : replays_)
    keep(left.slot);
  return slots;
}

std::optional<std::vector<OutboxSlotPtr>> Outbox::earlierRunSlots(bool& unread, std::int64_t& after,
                                                                  Deadline deadline) {
  const auto lock = storeLockBy(deadline);
  if (!lock.owns_lock())
    return std::nullopt;
  unread = earlierRunUnreadLocked();
  std::vector<OutboxSlotPtr> slots;
  for (auto it = held_.upper_bound(after); it != held_.end() && it->first <= leftoversEnd_; ++it) {
    after = it->first;
    if (it->second.slot && it->second.slot->earlierRun_ && !it->second.slot->settled())
      slots.push_back(it->second.slot);
  }
  return slots;
}

OutboxStats Outbox::stats() const {
  OutboxStats s;
  s.accepted = accepted_.load();
  s.delivered = delivered_.load();
  s.refused = refused_.load();
  s.retrying = retrying_.load();
  s.notKept = notKept_.load();
  s.droppedUnreadable = droppedUnreadable_.load();
  s.waiting = waiting_.load();
  s.droppedForBytes = droppedForBytes_.load();
  s.droppedForAge = droppedForAge_.load();
  s.droppedByRule = droppedByRule_.load();
  s.repeated = repeated_.load();
  s.handedToFolder = handedOver_.load();
  return s;
}

}  // namespace quorvel
