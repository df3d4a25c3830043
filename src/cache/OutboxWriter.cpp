// The outbox's writer, on its queue: each batch of the buffer in one write to the store, the
// changes the store refused kept and written again, the syncs, and the bounds.
#include "cache/Outbox.h"

#include <algorithm>
#include <variant>

#include "cache/Backoff.h"
#include "cache/OutboxShared.h"

namespace quorvel {

using namespace outbox_internal;

void Outbox::writeBufferedLocked() {
  writeScheduled_ = false;
  promptWriteScheduled_ = false;
  if (released_) {
    // Nothing is written once the store is let go, so what still arrives (an answer, a late
    // build) is dropped: kept, a built report's send, which holds the client that holds this
    // outbox, would keep both for ever.
    std::vector<Op> dropped;
    const std::lock_guard lock(bufferMutex_);
    dropped.swap(buffer_);
    return;
  }
  if (!opened_) {
    // Nothing to write is no reason to make the store (after a forgetting, none is there).
    const std::lock_guard lock(bufferMutex_);
    if (buffer_.empty() && noted_.empty())
      return;
  }
  openLocked();
  // The buffer the host's calls append to next is the last batch's, emptied: its room is
  // already there, so that a burst does not grow it again from nothing.
  std::vector<Op> batch = std::move(spareBuffer_);
  batch.clear();
  std::map<std::string, std::int64_t> noted;
  bool more = false;
  {
    const std::lock_guard lock(bufferMutex_);
    if (buffer_.size() <= kMaxBatch) {
      batch.swap(buffer_);
    } else {
      const auto cut = buffer_.begin() + static_cast<std::ptrdiff_t>(kMaxBatch);
      batch.assign(std::make_move_iterator(buffer_.begin()), std::make_move_iterator(cut));
      buffer_.erase(buffer_.begin(), cut);
      more = true;
    }
    noted.swap(noted_);
  }
  const bool handOverFailed = heldElsewhere_ && lockedOut_ && !handOverToHolderLocked(batch);
  if (!noted.empty() && !countersRead_ && store_) {
    bool complete = true;
    auto first = store_->loadPage(kCountersRecord - 1, 1, complete);
    if (complete)
      mergeCountersLocked(first);
  }
  if (!countersRead_ && store_ && !noted.empty()) {
    // Never written over stored counters not yet read: kept for a batch after they are.
    const std::lock_guard lock(bufferMutex_);
    for (const auto& [key, value] : noted) {
      auto& kept = noted_[key];
      kept = std::max(kept, value);
    }
    noted.clear();
    scheduleRewrite();  // tried again after the backoff, batch or not
  }
  for (const auto& [key, value] : noted) {
    const auto it = counters_.find(key);
    if (it == counters_.end() || !it->is_number_integer() || it->get<std::int64_t>() < value) {
      counters_[key] = value;
      countersDirty_ = true;
    }
  }
  if (batch.empty() && !countersDirty_ && (unwritten_.empty() || !store_))
    return;
  noteWriteLocked();
  std::vector<platform::OutboxChange> changes;
  changes.reserve(batch.size() + 1);
  if (countersDirty_)
    changes.push_back({kCountersRecord, counters_.dump()});
  std::vector<std::function<void()>> sends;
  bool launchLeaves = false;
  std::optional<platform::TimePoint> firstCall;
  std::size_t calls = 0;
  for (auto& op : batch) {
    if (auto* put = std::get_if<Put>(&op)) {
      if (put->slot->settled())
        continue;  // answered or dropped before it was written: nothing to keep
      if (put->intent) {
        ++calls;
        firstCall = std::min(firstCall.value_or(put->slot->acceptedAt()), put->slot->acceptedAt());
      }
      if (put->slot->id_ == 0)
        put->slot->id_ = ++lastId_;
      std::string content;
      try {
        content = serialise(*put);
      } catch (const std::exception& e) {
        log_->log(kLogError, kMethod, "Quorvel outbox: a report cannot be written: %@", e.what());
        continue;
      }
      auto& held = held_[put->slot->id_];
      heldBytes_ = heldBytes_ - held.bytes + content.size();
      held.slot = put->slot;
      held.bytes = content.size();
      if (put->request)
        held.request = put->request;
      if (put->then) {
        sends.push_back(put->then);
        launchLeaves = launchLeaves || put->carriesLaunchCounter;
      }
      changes.push_back({put->slot->id_, std::move(content)});
    } else {
      const auto& slot = std::get<Remove>(op).slot;
      if (slot->id_ == 0)
        continue;  // never written
      const auto it = held_.find(slot->id_);
      const bool onDisk = it == held_.end() || it->second.onDisk;
      forgetHeldLocked(slot->id_);
      if (onDisk)
        changes.push_back({slot->id_, std::nullopt});
    }
  }
  enforceBoundsLocked(changes);
  bool written = writeChangesLocked(changes);
  if (!written && store_ && store_->heldByAnotherProcess()) {
    stepDownIfTakenLocked();
    written = true;  // nothing was lost: kept in memory, or with the new holder
  }
  // A process that does not hold the directory writes nothing itself: only a failed hand-over
  // leaves its reports unkept. Those of an install forgotten elsewhere are not lost but
  // forgotten, once this process sees it: no disk failed.
  if (!written && (!heldElsewhere_ || handOverFailed) && !epochStaleLocked())
    countNotKeptLocked();
  // A counter that may reach the service is never given out again: the next start numbers
  // above the counters the store refused.
  if (!written && unwritten_.contains(kCountersRecord))
    markUnkeptCountersLocked();
  // The rest of a burst, at once.
  if (more && !promptWriteScheduled_.exchange(true))
    runLocked(&Outbox::writeBufferedLocked);
  // Shown when debugging: a kill in such a gap takes these calls with it.
  if (const auto late =
          firstCall ? clock_->now() - *firstCall : platform::TimePoint::duration::zero();
      written && late > kPromptWrite) {
    log_->log(kLogDebug, kMethod,
              "Quorvel outbox: %lu reports reached the disk %lld ms after the first was called",
              static_cast<unsigned long>(calls),
              static_cast<long long>(
                  std::chrono::duration_cast<std::chrono::milliseconds>(late).count()));
  }
  countersDirty_ = false;
  constexpr std::size_t kKeptRoom = 4'096;
  if (batch.capacity() <= kKeptRoom) {
    batch.clear();
    spareBuffer_ = std::move(batch);
  }
  // Written: now the requests may leave.
  // Kept only if the batch held the counters: while the stored ones are unread, they wait.
  // A stop holds the sends back: the launch does not leave.
  if (launchLeaves && !(sendsHeld_ && sendsHeld_()))
    noteLaunchLeavingLocked(written && countersRead_);
  for (const auto& send : sends)
    send();
  scheduleSyncLocked();
}

// At most one sync a second, on a queue of its own: a flush to a slow disk never holds up the
// writes.
void Outbox::scheduleSyncLocked() {
  if (!store_ || syncScheduled_)
    return;
  syncScheduled_ = true;
  const auto since = clock_->now() - lastSync_;
  const auto wait =
      since >= kSyncInterval || since < std::chrono::nanoseconds::zero()  // a clock set back
          ? std::chrono::nanoseconds::zero()
          : std::chrono::duration_cast<std::chrono::nanoseconds>(kSyncInterval - since);
  auto work = whileAlive([](Outbox& self) {
    std::shared_ptr<platform::OutboxStore> store;
    {
      const std::lock_guard lock(self.storeMutex_);
      self.syncScheduled_ = false;
      self.lastSync_ = self.clock_->now();
      store = self.store_;
    }
    const bool synced = !store || store->sync();
    if (store)
      self.adoptGuests(store);
    const std::lock_guard lock(self.storeMutex_);
    if (store && store == self.store_ && store->heldByAnotherProcess()) {
      self.stepDownIfTakenLocked();
      return;
    }
    self.noteUnreadableLocked();  // a healing or a reopening the sync did
    self.noteSyncLocked(synced);
  });
  syncQueue_->asyncAfter(wait, std::move(work));
}

bool Outbox::writeChangesLocked(std::vector<platform::OutboxChange>& changes) {
  if (!unwritten_.empty() && store_) {
    // What earlier writes could not take goes first, so that a newer change of a number wins.
    std::vector<platform::OutboxChange> all;
    all.reserve(unwritten_.size() + changes.size());
    for (const auto& [id, content] : unwritten_)
      all.push_back({id, content});
    all.insert(all.end(), std::make_move_iterator(changes.begin()),
               std::make_move_iterator(changes.end()));
    changes.swap(all);
  }
  if (changes.empty())
    return true;
  const bool applied = store_ && store_->apply(changes);
  writesFail_->store(!applied && store_, std::memory_order_relaxed);
  if (applied) {
    bool countersKept = false;
    for (const auto& change : changes) {
      if (const auto it = held_.find(change.id); change.content && it != held_.end())
        it->second.onDisk = true;
      countersKept = countersKept || (change.id == kCountersRecord && change.content);
    }
    if (countersKept)
      noteCountersKeptLocked();
    if (notKeptLogged_) {
      notKeptLogged_ = false;  // the episode is over: the next failure is logged again
      log_->log(kLogWarning, kMethod,
                "Quorvel outbox: writing works again; the %lu reports still unanswered are kept",
                static_cast<unsigned long>(held_.size()));
    }
    unwritten_.clear();
    rewriteAttempt_ = 0;
    return true;
  }
  for (auto& change : changes) {
    // A report settled meanwhile needs no record; its removal matters only if it has one.
    if (change.content && change.id != kCountersRecord && !held_.contains(change.id))
      continue;
    unwritten_.insert_or_assign(change.id, std::move(change.content));
  }
  if (store_)
    scheduleRewrite();
  return false;
}

// Reports whose record the store refused go from memory: counted once each, and said once an
// episode, so that a host can tell what a process dying now would lose.
void Outbox::countNotKeptLocked() {
  std::uint64_t count = 0;
  for (const auto& [id, content] : unwritten_) {
    const auto it = held_.find(id);
    if (!content || it == held_.end() || it->second.notKept)
      continue;
    it->second.notKept = true;
    ++count;
  }
  notKept_.fetch_add(count, std::memory_order_relaxed);
  if (count == 0 || notKeptLogged_)
    return;
  notKeptLogged_ = true;
  log_->log(kLogWarning, kMethod,
            "Quorvel outbox: cannot write to the disk (%@): reports are not kept and go from "
            "memory; those unanswered when the process ends are lost",
            storeErrorLocked());
}

void Outbox::scheduleRewrite() {
  if (rewriteScheduled_)
    return;
  rewriteScheduled_ = true;
  queue_->asyncAfter(kRewriteBackoff.delay(rewriteAttempt_++, backoffRandom()),
                     whileAliveLocked([](Outbox& self) {
                       self.rewriteScheduled_ = false;
                       self.writeBufferedLocked();
                     }));
}

void Outbox::noteSyncLocked(bool synced) {
  if (synced) {
    syncFailureLogged_ = false;
    return;
  }
  if (syncFailureLogged_)
    return;
  syncFailureLogged_ = true;
  log_->log(kLogWarning, kMethod,
            "Quorvel outbox: cannot move the written reports into the database (%@); they stay in "
            "the intake file and the move is tried again",
            storeErrorLocked());
}

void Outbox::forgetHeldLocked(std::int64_t id) {
  if (const auto it = held_.find(id); it != held_.end()) {
    heldBytes_ -= it->second.bytes;
    held_.erase(it);
  }
  if (!unwritten_.empty())
    unwritten_.erase(id);
}

void Outbox::enforceBoundsLocked(std::vector<platform::OutboxChange>& changes) {
  std::uint64_t dropped = 0;
  while (heldBytes_ > limits_.maxBytes && !held_.empty()) {
    auto oldest = held_.begin();
    heldBytes_ -= oldest->second.bytes;
    const auto slot = oldest->second.slot;
    changes.push_back({oldest->first, std::nullopt});
    unwritten_.erase(oldest->first);
    held_.erase(oldest);
    if (slot)
      replayCameBack(slot);
    if (slot && slot->settle(false)) {
      if (slot->retrying_.exchange(false))
        retrying_.fetch_sub(1, std::memory_order_relaxed);
      droppedForBytes_.fetch_add(1, std::memory_order_relaxed);
      waiting_.fetch_sub(1, std::memory_order_relaxed);
    }
    ++dropped;
  }
  if (dropped > 0 && !overBoundLogged_) {
    overBoundLogged_ = true;
    log_->log(kLogWarning, kMethod,
              "Quorvel outbox is full (%llu bytes): the oldest reports are dropped until it "
              "has room",
              static_cast<unsigned long long>(limits_.maxBytes));
  } else if (dropped == 0 && heldBytes_ < limits_.maxBytes / 10 * 9) {
    overBoundLogged_ = false;  // the episode is over
  }
}

void Outbox::drainAndSync() noexcept {
  if (platform::forkGeneration() != forkGeneration_)
    return;  // a forked child's copy: the store is its parent's
  try {
    std::shared_ptr<platform::OutboxStore> store;
    {
      const std::lock_guard lock(storeMutex_);
      // The process that held the data directory may have ended since the last try; an exit
      // that did not try again would lose what this one kept in memory meanwhile.
      if (lockedOut_)
        takeFreedLockLocked();
      writeBufferedLocked();
      store = store_;
    }
    // Outside the lock, as the periodic sync: what was written is the kernel's already, and the
    // sync of a large outbox takes tens of milliseconds. Held, it would stop every answer that
    // comes meanwhile at exit (its removal is written on its own thread then), and the process
    // would end before those answers were counted.
    if (store)
      store->sync();
    const std::lock_guard lock(storeMutex_);
    lastSync_ = clock_->now();
  } catch (...) {
    // Exit and background paths never throw.
  }
}

void Outbox::release() noexcept {
  drainAndSync();
  try {
    const std::lock_guard lock(storeMutex_);
    released_ = true;
    for (const auto& store : {store_, lockedOut_}) {
      if (store)
        store->release();
    }
    store_.reset();
    lockedOut_.reset();
  } catch (...) {
    // The exit path never throws; the store lets go when its last owner does.
  }
}

void Outbox::syncSoon() {
  queue_->async(whileAlive([](Outbox& self) { self.drainAndSync(); }));
}

}  // namespace quorvel
