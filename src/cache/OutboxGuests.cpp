// Another process holds the data directory: this one's unbuilt reports go to a guest file of
// its own for the holder to adopt, the lock is tried again with a backoff, and once it is free
// what this process kept in memory is numbered and written. The holder's side adopts guests.
#include "cache/Outbox.h"

#include "cache/Backoff.h"
#include "cache/OutboxShared.h"
#include "util/BoundedJson.h"

namespace quorvel {

using namespace outbox_internal;

namespace {
// A guest's file is made just before its first batch is written into it: taken at once, it
// would often be taken empty, and the guest would start another.
constexpr std::chrono::milliseconds kGuestSettle{250};
}  // namespace

void Outbox::scheduleLockRetry() {
  runLocked(&Outbox::retryLockLocked, kLockBackoff.delay(lockAttempt_++, backoffRandom()));
}

void Outbox::retryLockLocked() {
  if (!lockedOut_ || platform::forkGeneration() != forkGeneration_)
    return;
  if (!takeFreedLockLocked())
    scheduleLockRetry();
}

bool Outbox::epochStaleLocked() const {
  if (!installEpochNow_)
    return false;
  const auto now = installEpochNow_();
  return now && *now != epoch_;
}

bool Outbox::takeFreedLockLocked() {
  if (epochStaleLocked())
    return false;  // tried again once this process has forgotten too
  std::string reason;
  if (!lockedOut_->open(reason)) {
    if (lockedOut_->heldByAnotherProcess())
      return false;
    if (heldElsewhere_) {
      log_->log(kLogWarning, kMethod, kNotKeptWarning, reason);
      notKeptLogged_ = true;
      heldElsewhere_ = false;
      releaseNumberingLocked();
    }
    return false;
  }
  store_ = std::move(lockedOut_);
  heldElsewhere_ = false;
  durable_ = true;
  lockAttempt_ = 0;  // a later lock-out waits from the shortest delay again
  log_->log(kLogInfo, kMethod,
            "Quorvel: this process now holds the app's data directory: its reports are kept on "
            "disk, numbered and sent from now on");
  readStoreLocked();
  writeHeldLocked();
  releaseNumberingLocked();
  return true;
}

// Nothing of this process reached the store: its reports are numbered anew, after the store's
// own, and what is unanswered of them is written. The counters it gave meanwhile are noted
// again, so that the next batch lays them over the stored ones (and any mark of counters an
// earlier process could not keep) instead of writing over them.
void Outbox::writeHeldLocked() {
  std::map<std::int64_t, Held> renumbered;
  std::vector<platform::OutboxChange> changes;
  changes.reserve(held_.size());
  if (unwritten_.contains(kCountersRecord)) {
    const std::lock_guard lock(bufferMutex_);
    for (const auto& [key, value] : counters_.items()) {
      if (value.is_number_integer())
        noted_[key] = std::max(noted_[key], value.get<std::int64_t>());
    }
  }
  for (auto& [id, held] : held_) {
    const std::int64_t number = ++lastId_;
    held.slot->id_ = number;
    if (const auto it = unwritten_.find(id); it != unwritten_.end() && it->second)
      changes.push_back({number, std::move(it->second)});
    renumbered.emplace(number, std::move(held));
  }
  held_.swap(renumbered);
  unwritten_.clear();
  writeChangesLocked(changes);
  if (!promptWriteScheduled_.exchange(true))
    runLocked(&Outbox::writeBufferedLocked);
}

void Outbox::stepDownIfTakenLocked() {
  if (!store_ || !store_->heldByAnotherProcess())
    return;
  log_->log(kLogWarning, kMethod,
            "Quorvel: %@: this process stops writing to the data directory and hands its "
            "unbuilt reports to that process; its built ones wait in memory until it holds "
            "the directory again",
            store_->lastError());
  // The store still reads what this process wrote (its removed files stay open here).
  std::vector<platform::OutboxChange> handOver;
  std::vector<OutboxSlotPtr> slots;
  const bool stale = epochStaleLocked();
  for (auto& [id, held] : held_) {
    if (held.slot->settled())
      continue;
    std::optional<std::string> content;
    if (const auto it = unwritten_.find(id); it != unwritten_.end())
      content = it->second;
    else if (const auto page = store_->load(id - 1, 1); !page.empty() && page.front().id == id)
      content = page.front().content;
    // What stays here is on no disk the next start reads (the files it was written to are
    // removed): an exit now loses it, and the exit log says so.
    held.onDisk = false;
    if (!content)
      continue;
    Json record = held.request || stale ? Json() : parseBoundedJson(*content);
    if (record.is_object() && record.contains("kind")) {
      if (!epoch_.empty())
        record["epoch"] = epoch_;
      handOver.push_back({id, record.dump(-1, ' ', false, Json::error_handler_t::replace)});
      slots.push_back(held.slot);
    } else {
      unwritten_[id] = std::move(content);
    }
  }
  // The counters stay in memory only: laid over the store's by the larger value once this
  // process holds the directory again, never written over a newer holder's (not even by the
  // write the new holder refused).
  unwritten_.erase(kCountersRecord);
  lockedOut_ = std::move(store_);
  heldElsewhere_ = true;
  durable_ = false;
  numberingSafe_.store(false, std::memory_order_release);
  watching_ = false;
  lockedOut_->unwatchFolder();
  if (!handOver.empty() && lockedOut_->appendAsGuest(handOver)) {
    for (const auto& slot : slots) {
      slot->keptForHolder_ = true;
      if (settleCounted(slot, handedOver_))
        forgetHeldLocked(slot->id_);
    }
  } else {
    for (auto& [id, content] : handOver)
      unwritten_[id] = std::move(content);
  }
  scheduleLockRetry();
}

void Outbox::tryFreedLock() noexcept {
  if (platform::forkGeneration() != forkGeneration_)
    return;
  try {
    const std::lock_guard lock(storeMutex_);
    if (lockedOut_)
      takeFreedLockLocked();
  } catch (...) {
    // The exit path never throws; the lock is tried again as scheduled.
  }
}

bool Outbox::handOverToHolderLocked(std::vector<Op>& batch) {
  // A forgetting this process has not seen yet: its reports are the old install's, and stay in
  // memory, where seeing it drops them, instead of in a file a kill would leave behind.
  if (epochStaleLocked())
    return false;
  std::vector<platform::OutboxChange> changes;
  std::vector<OutboxSlotPtr> slots;
  for (auto& op : batch) {
    const auto* put = std::get_if<Put>(&op);
    if (put == nullptr || !put->intent || put->slot->settled())
      continue;
    try {
      changes.push_back({++lastId_, serialise(*put, epoch_)});
    } catch (const std::exception&) {
      continue;  // kept in memory like the rest
    }
    slots.push_back(put->slot);
  }
  if (changes.empty())
    return true;
  if (!lockedOut_->appendAsGuest(changes))
    return false;
  // Settled here: the builds that wait for the data directory skip them, and the holder sends
  // them under its own counters.
  for (const auto& slot : slots) {
    slot->keptForHolder_ = true;
    settleCounted(slot, handedOver_);
  }
  log_->log(kLogDebug, kMethod,
            "Quorvel: %lu reports kept on disk for the process that holds the data directory",
            static_cast<unsigned long>(slots.size()));
  return true;
}

void Outbox::adoptGuests(const std::shared_ptr<platform::OutboxStore>& store) {
  std::vector<Leftover> unbuilt;
  std::function<void(std::vector<Leftover>)> take;
  const std::size_t taken = store->adoptGuests([&](std::vector<platform::OutboxRecord> records) {
    const std::lock_guard lock(storeMutex_);
    if (store_ != store || !keepGuestRecordsLocked(std::move(records)))
      return false;
    if (resumed_) {
      auto more = releaseLeftoversLocked();
      unbuilt.insert(unbuilt.end(), std::make_move_iterator(more.begin()),
                     std::make_move_iterator(more.end()));
      take = take_;
    }
    return true;
  });
  if (taken > 0) {
    const std::lock_guard lock(storeMutex_);
    log_->log(kLogInfo, kMethod,
              "Quorvel outbox: reports another process of this app kept for this one are sent "
              "from here");
    guestWatchUntil_ = clock_->now() + std::chrono::minutes(1);
    scheduleGuestWatch();
  }
  if (!unbuilt.empty() && take)
    take(std::move(unbuilt));
}

bool Outbox::keepGuestRecordsLocked(std::vector<platform::OutboxRecord> records) {
  // A holder behind a forgetting empties this store once it sees it: what a guest kept for
  // the new install waits in its file until then.
  if (!store_ || epochStaleLocked())
    return false;
  // Read at each file: a forgetting may come between two. Unreadable now, the file waits.
  const auto epoch = installEpochNow_ ? installEpochNow_() : std::optional<std::string>("");
  if (!epoch)
    return false;
  std::vector<std::pair<Leftover, std::size_t>> adopted;
  std::vector<platform::OutboxChange> changes;
  std::size_t forgotten = 0;
  for (auto& record : records) {
    if (record.id < kCountersRecord) {  // the store's note of this taking: in the same batch
      changes.push_back({record.id, std::move(record.content)});
      continue;
    }
    if (installEpochNow_ && recordEpoch(record) != *epoch) {
      ++forgotten;  // made before a forgetting its guest did not live to see
      continue;
    }
    auto left = parseLeftover(record);
    if (!left || left->request)
      continue;  // a guest keeps only reports it has not built
    left->slot->id_ = ++lastId_;
    changes.push_back({left->slot->id_, std::move(record.content)});
    adopted.emplace_back(std::move(*left), changes.back().content->size());
  }
  if (!changes.empty() && !store_->apply(changes))
    return false;
  for (auto& [left, bytes] : adopted) {
    accepted_.fetch_add(1, std::memory_order_relaxed);
    keepLeftoverLocked(std::move(left), bytes);
  }
  if (forgotten > 0)
    log_->log(kLogInfo, kMethod,
              "Quorvel outbox: %lu reports another process kept for this one belong to an "
              "install forgotten since; dropped",
              static_cast<unsigned long>(forgotten));
  return true;
}

void Outbox::scheduleGuestWatch() {
  if (guestWatchScheduled_ || clock_->now() >= guestWatchUntil_)
    return;
  guestWatchScheduled_ = true;
  auto work = whileAlive([](Outbox& self) {
    std::shared_ptr<platform::OutboxStore> store;
    {
      const std::lock_guard lock(self.storeMutex_);
      self.guestWatchScheduled_ = false;
      store = self.store_;
    }
    if (store)
      self.adoptGuests(store);
    const std::lock_guard lock(self.storeMutex_);
    self.scheduleGuestWatch();
  });
  syncQueue_->asyncAfter(std::chrono::seconds(2), std::move(work));
}

void Outbox::guestSeen() noexcept {
  if (guestTakingScheduled_.exchange(true))
    return;
  auto work = whileAlive([](Outbox& self) {
    self.guestTakingScheduled_ = false;
    std::shared_ptr<platform::OutboxStore> store;
    {
      const std::lock_guard lock(self.storeMutex_);
      store = self.store_;
    }
    if (!store)
      return;
    // The folder's removal is told here too: a sync looks whether the store still holds it
    // (and locks it again if no other process took it), so that an idle holder does not wait
    // for its next write to find out.
    store->sync();
    if (store->heldByAnotherProcess()) {
      const std::lock_guard lock(self.storeMutex_);
      if (self.store_ == store)
        self.stepDownIfTakenLocked();
      return;
    }
    self.adoptGuests(store);
  });
  syncQueue_->asyncAfter(kGuestSettle, std::move(work));
}

}  // namespace quorvel
