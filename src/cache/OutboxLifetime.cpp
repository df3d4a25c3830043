// The store's life under the outbox: opened on first need (or another process holds it, or
// none can be used), its number floor read, what it found unreadable counted, and everything
// forgotten at once.
#include "cache/Outbox.h"

#include "cache/OutboxShared.h"

namespace quorvel {

using namespace outbox_internal;

void Outbox::openLocked() {
  if (opened_ || released_)
    return;
  opened_ = true;
  std::string reason = "no outbox store";
  if (store_ && epochStaleLocked()) {
    // Freed by a forgetting this process has not seen yet: taken once it has.
    lockedOut_ = std::move(store_);
    durable_ = false;
    scheduleLockRetry();
    return;
  }
  if (!store_ || !store_->open(reason)) {
    durable_ = false;
    if (!store_) {
      log_->log(kLogError, kMethod,
                "Quorvel outbox unavailable (%@): this process's reports are kept in memory only",
                reason);
      return;
    }
    if (store_->heldByAnotherProcess()) {
      heldElsewhere_ = true;
      log_->log(kLogError, kMethod,
                "Quorvel: another process uses this app's data directory (%@): this tracker "
                "keeps its reports on disk for that process to send (in memory, sent once that "
                "process lets the directory go, when the disk refuses them); the kept requests "
                "there are left to that process",
                reason);
    } else {
      // A full disk or a folder not yet writable passes: the store is tried again, and what
      // is unanswered then is written.
      notKeptLogged_ = true;
      log_->log(kLogWarning, kMethod, kNotKeptWarning, reason);
    }
    lockedOut_ = std::move(store_);
    scheduleLockRetry();
    return;
  }
  readStoreLocked();
}

void Outbox::openSoon() {
  runLocked(&Outbox::openLocked);
}

// Nothing of what an earlier process left is read now: this process's records are numbered
// above it and written from the first batch on, while those are read a page at a time on
// the sync queue, and the counters when the first one is asked for.
void Outbox::readStoreLocked() {
  noteUnreadableLocked();
  // What other processes kept while they could not open the store: taken off this thread;
  // what they keep from now on, as soon as the store sees it, once the folder is watched.
  syncQueue_->async(whileAlive([store = store_](Outbox& self) { self.adoptGuests(store); }));
  lastWrite_ = clock_->now();
  scheduleWatchLocked(kWatchWhenIdle);
  leftoversEnd_ = store_->idFloor() - 1;
  lastId_ = std::max(lastId_, leftoversEnd_);
  countersRead_ = false;
  loadedUpTo_ = kCountersRecord;
  if (loadedUpTo_ < leftoversEnd_)
    scheduleLeftoverPage();
}

void Outbox::scheduleWatchLocked(std::chrono::nanoseconds after) {
  if (watchScheduled_ || !store_)
    return;
  watchScheduled_ = true;
  syncQueue_->asyncAfter(
      after, whileAlive([store = store_](Outbox& self) { self.considerWatching(store); }));
}

void Outbox::considerWatching(const std::shared_ptr<platform::OutboxStore>& store) {
  std::function<void(std::string_view)> onFolderFile;
  {
    const std::lock_guard lock(storeMutex_);
    watchScheduled_ = false;
    // Only an open store is watched: a forgetting closes it, and ends its watch.
    if (released_ || !opened_ || store_ != store || watching_)
      return;
    const auto idle = clock_->now() - lastWrite_;
    if (idle >= std::chrono::nanoseconds::zero() && idle < kWatchWhenIdle) {
      scheduleWatchLocked(kWatchWhenIdle - idle);
      return;
    }
    std::weak_ptr<Outbox> weak = weak_from_this();
    // Under the lock, so that a write cannot end the watch before it began. The watch's
    // callbacks never take this lock.
    store->watchFolder(
        [weak] {
          if (const auto self = weak.lock())
            self->guestSeen();
        },
        onFolderFile_);
    watching_ = true;
    onFolderFile = onFolderFile_;
  }
  // What was made before the watch began.
  adoptGuests(store);
  if (onFolderFile)
    onFolderFile({});
}

void Outbox::noteWriteLocked() {
  lastWrite_ = clock_->now();
  if (!watching_)
    return;
  watching_ = false;
  if (store_)
    store_->unwatchFolder();
  scheduleWatchLocked(kWatchWhenIdle);
}

void Outbox::noteUnreadableLocked() {
  if (!store_)
    return;
  if (const std::string note = store_->takeHealingNote(); !note.empty())
    log_->log(kLogWarning, kMethod, "%@", note);
  const std::uint64_t now = store_->unreadableRecords();
  if (now > storeUnreadable_)
    droppedUnreadable_.fetch_add(now - storeUnreadable_, std::memory_order_relaxed);
  storeUnreadable_ = now;
}

bool Outbox::forgetAll(bool everyGuestFile) noexcept {
  try {
    // A holder that sees another process's forgetting only now: what guests kept meanwhile
    // under the install consented to since is that install's, and the emptying below removes
    // every guest file. Taken first (outside the store's lock, as any taking of guest files),
    // and kept in the new store. A kill in between loses them: rare, and never a repeat.
    auto renewed =
        everyGuestFile ? std::vector<platform::OutboxRecord>{} : takeRenewedGuestRecords();
    if (!forgetAllLocked(everyGuestFile))
      return false;
    if (!renewed.empty())
      keepRenewedGuestRecords(std::move(renewed));
    return true;
  } catch (...) {
    return false;  // the caller's marker stays: the next start finishes the job
  }
}

std::vector<platform::OutboxRecord> Outbox::takeRenewedGuestRecords() {
  std::shared_ptr<platform::OutboxStore> store;
  std::string before;
  {
    const std::lock_guard lock(storeMutex_);
    store = store_;
    before = epoch_;
  }
  // Only where the install was renewed: with the epoch unchanged (its renewal refused by the
  // disk), every guest record is the forgotten install's.
  const auto epoch = installEpochNow_ ? installEpochNow_() : std::nullopt;
  if (!store || !epoch || *epoch == before)
    return {};
  std::vector<platform::OutboxRecord> renewed;
  store->adoptGuests([&](std::vector<platform::OutboxRecord> records) {
    for (auto& record : records) {
      if (record.id >= kCountersRecord && recordEpoch(record) == *epoch)
        renewed.push_back(std::move(record));
    }
    return true;  // the rest is the forgotten install's
  });
  return renewed;
}

void Outbox::keepRenewedGuestRecords(std::vector<platform::OutboxRecord> records) {
  std::vector<Leftover> unbuilt;
  std::function<void(std::vector<Leftover>)> take;
  {
    const std::lock_guard lock(storeMutex_);
    openLocked();
    if (!keepGuestRecordsLocked(std::move(records))) {
      log_->log(kLogWarning, kMethod,
                "Quorvel outbox: reports another process kept for this one since the install was "
                "forgotten could not be kept; dropped");
      return;
    }
    if (resumed_) {
      unbuilt = releaseLeftoversLocked();
      take = take_;
    }
  }
  if (!unbuilt.empty() && take)
    take(std::move(unbuilt));
}

bool Outbox::forgetAllLocked(bool everyGuestFile) {
  const std::lock_guard lock(storeMutex_);
  // What is accepted from now on belongs to the install on the disk now; the store is
  // opened for that one (to be emptied), not refused as another install's.
  if (installEpochNow_)
    epoch_ = installEpochNow_().value_or(epoch_);
  openLocked();
  // Refused before as the new install's: emptied now if it can be, and left to the process
  // that took it meanwhile if one did.
  if (!store_ && lockedOut_ && !heldElsewhere_ && !takeFreedLockLocked() &&
      lockedOut_->heldByAnotherProcess())
    heldElsewhere_ = true;
  std::vector<OutboxSlotPtr> slots;
  {
    const std::lock_guard buffer(bufferMutex_);
    for (auto& op : buffer_) {
      if (const auto* put = std::get_if<Put>(&op))
        slots.push_back(put->slot);
    }
    buffer_.clear();
    noted_.clear();
  }
  for (const auto& [id, held] : held_)
    slots.push_back(held.slot);
  for (const auto& left : leftovers_)
    slots.push_back(left.slot);
  for (const auto& left : replays_)
    slots.push_back(left.slot);
  for (const auto& slot : slots) {
    if (slot && slot->settle(false)) {
      waiting_.fetch_sub(1, std::memory_order_relaxed);
      if (slot->retrying_.exchange(false))
        retrying_.fetch_sub(1, std::memory_order_relaxed);
    }
  }
  held_.clear();
  unwritten_.clear();
  heldBytes_ = 0;
  leftovers_.clear();
  replays_.clear();
  loadedUpTo_ = leftoversEnd_;
  leftoverPageAttempt_ = 0;
  ++forgetGeneration_;  // a page being read now is dropped
  counters_ = Json::object();
  keptCounters_ = Json::object();
  countersUnkeptMarked_ = false;
  launchUnsentMarked_ = false;
  launchLeftUnkept_ = false;
  ownUnkeptMark_ = false;
  unkeptStartsRead_.reset();
  unkeptStartsRaised_ = false;
  countersDirty_ = false;
  if (!store_) {
    // Another process's store is not this one's to forget; what this one kept there for it,
    // not yet taken, is, and goes (a report handed over just before the stop was seen), and
    // at a forgetting that began here, what every other process kept (the holder drops it
    // anyway, by its epoch, but no file of the old install is left meanwhile).
    if (lockedOut_ && everyGuestFile)
      lockedOut_->removeEveryGuestFile();
    else if (lockedOut_)
      lockedOut_->removeOwnGuestFiles();
    // A store that would not open here (a full disk) is this one's: its mark of unkept
    // counters goes, or the new install's first launch would be numbered above the old ones.
    if (lockedOut_ && !heldElsewhere_)
      lockedOut_->markCountersUnkept(false);
    return !heldElsewhere_;
  }
  if (store_->destroy()) {
    // Opened again, new and empty, only when a report comes: a stopped library leaves no file.
    // Its watch went with it, and begins again once the new store idles.
    opened_ = false;
    watching_ = false;
    return true;
  }
  store_->markCountersUnkept(false);  // the new install numbers from the start
  std::vector<platform::OutboxChange> removals;
  for (std::int64_t after = kCountersRecord - 1;;) {
    const auto page = store_->load(after, 1000);
    if (page.empty())
      break;
    for (const auto& record : page)
      removals.push_back({record.id, std::nullopt});
    after = page.back().id;
  }
  if (!removals.empty() && !store_->apply(removals))
    return false;
  return store_->sync();
}

}  // namespace quorvel
