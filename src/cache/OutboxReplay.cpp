// What an earlier run left: read a page at a time off the writer's thread, kept with this run's
// reports, and released once the tracker resumes: built ones sent again in chunks, unbuilt
// ones handed to the tracker to build.
#include "cache/Outbox.h"

#include <algorithm>

#include "cache/Backoff.h"
#include "cache/OutboxShared.h"

namespace quorvel {

using namespace outbox_internal;

// Pages are read and parsed on the sync queue, outside the store's lock: a page takes
// milliseconds, which the writer's thread must not spend while this run's calls wait for it.
void Outbox::scheduleLeftoverPage(std::chrono::nanoseconds after) {
  auto load = whileAlive([](Outbox& self) { self.loadLeftoverPage(); });
  if (after > std::chrono::nanoseconds::zero())
    syncQueue_->asyncAfter(after, std::move(load));
  else
    syncQueue_->async(std::move(load));
}

void Outbox::loadLeftoverPage() {
  constexpr std::size_t kPage = 100;
  std::shared_ptr<platform::OutboxStore> store;
  std::int64_t after = 0;
  std::int64_t end = 0;
  std::uint64_t generation = 0;
  {
    const std::lock_guard lock(storeMutex_);
    if (!store_ || loadedUpTo_ >= leftoversEnd_)
      return;
    store = store_;
    after = loadedUpTo_;
    end = leftoversEnd_;
    generation = forgetGeneration_;
  }
  bool complete = true;
  const auto page = store->loadPage(after, kPage, complete);
  struct Read {
    std::int64_t id;
    std::size_t bytes;
    std::optional<Leftover> left;  // none: unreadable
  };
  std::vector<Read> read;
  read.reserve(page.size());
  // Records come by number: the first of this process's own ends the earlier one's. A page
  // a passing fault cut short is no end: the rest is read again later.
  bool lastPage = complete && page.size() < kPage;
  for (const auto& record : page) {
    if (record.id > end) {
      lastPage = true;
      break;
    }
    read.push_back({record.id, record.content.size(), parseLeftover(record)});
  }
  std::vector<Leftover> unbuilt;
  std::function<void(std::vector<Leftover>)> take;
  {
    const std::lock_guard lock(storeMutex_);
    if (store_ != store || generation != forgetGeneration_ || after != loadedUpTo_)
      return;  // forgotten meanwhile
    std::vector<platform::OutboxChange> unreadable;
    for (auto& r : read) {
      loadedUpTo_ = r.id;
      accepted_.fetch_add(1, std::memory_order_relaxed);
      if (r.left) {
        keepLeftoverLocked(std::move(*r.left), r.bytes);
      } else {
        unreadable.push_back({r.id, std::nullopt});
        droppedUnreadable_.fetch_add(1, std::memory_order_relaxed);
      }
    }
    if (lastPage)
      loadedUpTo_ = leftoversEnd_;
    noteUnreadableLocked();
    if (!unreadable.empty()) {
      log_->log(kLogWarning, kMethod, "Quorvel outbox: %lu unreadable reports dropped",
                static_cast<unsigned long>(unreadable.size()));
      store_->apply(unreadable);
    }
    if (resumed_) {
      unbuilt = releaseLeftoversLocked();
      take = take_;
    }
    if (loadedUpTo_ < leftoversEnd_) {
      const bool cutShort = !complete && !lastPage;
      leftoverPageAttempt_ = cutShort ? leftoverPageAttempt_ + 1 : 0;
      scheduleLeftoverPage(cutShort ? kRewriteBackoff.delay(leftoverPageAttempt_, backoffRandom())
                                    : std::chrono::nanoseconds::zero());
    }
  }
  if (!unbuilt.empty() && take)
    take(std::move(unbuilt));
}

void Outbox::keepLeftoverLocked(Leftover left, std::size_t bytes) {
  left.slot->earlierRun_ = true;
  Held held;
  held.slot = left.slot;
  held.bytes = bytes;
  held.onDisk = true;
  if (left.request) {
    held.request = std::make_shared<const QuorvelRequestCacheData>(*left.request);
    held.unsent = !left.wasSent;
    left.slot->reached_ = left.wasSent;
  }
  heldBytes_ += held.bytes;
  held_.emplace(left.slot->id_, std::move(held));
  waiting_.fetch_add(1, std::memory_order_relaxed);
  leftovers_.push_back(std::move(left));
}

// Leftovers read so far go: built ones to the replay, unbuilt ones to the caller.
std::vector<Outbox::Leftover> Outbox::releaseLeftoversLocked() {
  dropExpiredLeftoversLocked();
  std::vector<Leftover> unbuilt;
  std::vector<platform::OutboxChange> twins;
  for (auto& left : leftovers_) {
    if (!left.request) {
      unbuilt.push_back(std::move(left));
    } else if (keptElsewhere_ && keptElsewhere_(*left.request)) {
      forgetHeldLocked(left.slot->id_);
      twins.push_back({left.slot->id_, std::nullopt});
      if (left.slot->settle(false)) {
        handedOver_.fetch_add(1, std::memory_order_relaxed);
        waiting_.fetch_sub(1, std::memory_order_relaxed);
      }
    } else {
      replays_.push_back(std::move(left));
    }
  }
  leftovers_.clear();
  if (!twins.empty() && store_)
    store_->apply(twins);
  replayChunkLocked();
  return unbuilt;
}

// The age bound is applied when the leftovers go, not when the store opens: by then the host
// has set its own limits.
void Outbox::dropExpiredLeftoversLocked() {
  const auto now = clock_->now();
  std::vector<platform::OutboxChange> expired;
  std::erase_if(leftovers_, [&](const Leftover& left) {
    if (now - left.slot->acceptedAt() <= limits_.maxAge)
      return false;
    const auto id = left.slot->id_;
    forgetHeldLocked(id);
    expired.push_back({id, std::nullopt});
    // Settled, so that a flush that judged it (begun before the first call released the
    // leftovers) says it failed instead of waiting out its bound.
    if (left.slot->settle(false)) {
      waiting_.fetch_sub(1, std::memory_order_relaxed);
      droppedForAge_.fetch_add(1, std::memory_order_relaxed);
    }
    return true;
  });
  if (expired.empty())
    return;
  logDroppedForAge(*log_, expired.size(), limits_.maxAge);
  if (store_)
    store_->apply(expired);
}

void Outbox::setResend(Resend resend) {
  const std::lock_guard lock(storeMutex_);
  resend_ = std::move(resend);
}

void Outbox::setKeptElsewhere(std::function<bool(const QuorvelRequestCacheData&)> keptElsewhere) {
  const std::lock_guard lock(storeMutex_);
  keptElsewhere_ = std::move(keptElsewhere);
}

void Outbox::setSendsHeld(std::function<bool()> sendsHeld) {
  const std::lock_guard lock(storeMutex_);
  sendsHeld_ = std::move(sendsHeld);
}

void Outbox::setInstallEpoch(InstallEpochNow now) {
  const std::lock_guard lock(storeMutex_);
  installEpochNow_ = std::move(now);
  epoch_ = installEpochNow_().value_or(std::string());
}

void Outbox::setOnFolderFile(std::function<void(std::string_view)> onFolderFile) {
  const std::lock_guard lock(storeMutex_);
  onFolderFile_ = std::move(onFolderFile);
}

void Outbox::resume(std::function<void(std::vector<Leftover>)> take) {
  queue_->async(whileAlive([take = std::move(take)](Outbox& self) {
    std::vector<Leftover> unbuilt;
    {
      const std::lock_guard lock(self.storeMutex_);
      self.openLocked();
      if (self.resumed_)
        return;
      self.resumed_ = true;
      self.take_ = take;
      unbuilt = self.releaseLeftoversLocked();
    }
    if (!unbuilt.empty())
      take(std::move(unbuilt));
  }));
}

// An earlier run may have left thousands of built requests. They go in chunks, each a task of
// its own, so that the writes of this run's reports (queued meanwhile) are never held up
// behind all of them, and no more than the build throttle's worth are on the wire at once.
void Outbox::replayChunkLocked() {
  constexpr std::size_t kChunk = 64;
  constexpr std::size_t kMaxInFlight = 128;
  replayChunkScheduled_ = false;
  std::vector<Leftover> leaving;
  std::vector<platform::OutboxChange> changes;
  for (std::size_t n = 0; n < kChunk && !replays_.empty() && replaysInFlight_ < kMaxInFlight; ++n) {
    Leftover left = std::move(replays_.front());
    replays_.pop_front();
    const auto it = held_.find(left.slot->id_);
    if (resend_ && it != held_.end() && !left.slot->settled() && left.slot->startSending()) {
      left.slot->replay_ = true;
      replaysInFlight_.fetch_add(1);
      noteCopyLeavingLocked(it->second, changes);
      leaving.push_back(std::move(left));
    }
  }
  writeChangesLocked(changes);  // before the copies leave
  for (const auto& left : leaving) {
    // A clock set back never makes a report younger than its call.
    const double waited = std::max(0.0, seconds(clock_->now()) - seconds(left.slot->acceptedAt()));
    resend_(left.slot, *left.request, waited);
  }
  if (replays_.empty() || replaysInFlight_ >= kMaxInFlight || replayChunkScheduled_.exchange(true))
    return;
  runLocked(&Outbox::replayChunkLocked);
}

void Outbox::replayCameBack(const OutboxSlotPtr& slot) {
  if (!slot->replay_.exchange(false))
    return;
  replaysInFlight_.fetch_sub(1);
  if (replayChunkScheduled_.exchange(true))
    return;
  runLocked(&Outbox::replayChunkLocked);
}

}  // namespace quorvel
