// The counters a request carries, kept with the reports (record 0), and the numbering gate:
// counters are given out only by the process that holds the data directory.
#include "cache/Outbox.h"

#include "cache/OutboxShared.h"
#include "util/BoundedJson.h"
#include "util/PreferenceKeys.h"

namespace quorvel {

using namespace outbox_internal;

namespace {

// How far a counter may go beyond its kept value while the disk refuses it, for each start in
// a row that gave out unkept counters: the next start numbers above that, so a full disk costs
// at most this gap a start. A process launches a few times, but may send many events. No
// launch of the gap left: the launch counter has none.
std::int64_t unkeptReach(const std::string& key, bool launchUnsent, int starts) {
  if (key != keys::kCounter)
    return std::int64_t{10'000} * starts;
  return launchUnsent ? 0 : std::int64_t{16} * starts;
}

std::int64_t keptValue(const Json& kept, const std::string& key) {
  const auto it = kept.find(key);
  return it != kept.end() && it->is_number_integer() ? it->get<std::int64_t>() : 0;
}

}  // namespace

void Outbox::noteCounter(const std::string& key, std::int64_t value) {
  const std::lock_guard lock(bufferMutex_);
  auto& noted = noted_[key];
  noted = std::max(noted, value);
}

// The kept counters are read the first time one is asked for, on the asking thread and outside
// the store's lock: the read may wait for the store to take in what an earlier process left,
// and the writer's batches go on meanwhile.
std::optional<std::int64_t> Outbox::counterFloor(const std::string& key,
                                                 std::int64_t& reachWhileUnread) {
  reachWhileUnread = 0;
  std::shared_ptr<platform::OutboxStore> store;
  std::uint64_t generation = 0;
  {
    const std::lock_guard lock(storeMutex_);
    openLocked();
    if (countersRead_)
      return counterLocked(key);
    // Out of reach, the stored counters are unknown, not 0: asked again once it opens.
    if (!store_) {
      reachWhileUnread = reachWhileUnreadLocked(key);
      return std::nullopt;
    }
    store = store_;
    generation = forgetGeneration_;
  }
  bool complete = true;
  const auto first = store->loadPage(kCountersRecord - 1, 1, complete);
  const std::lock_guard lock(storeMutex_);
  // A read a passing fault cut short says nothing of the stored counters: asked again later.
  if (!complete && !countersRead_)
    return std::nullopt;
  if (!countersRead_ && store_ == store && generation == forgetGeneration_)
    mergeCountersLocked(first);
  return counterLocked(key);
}

// Only an earlier process's mark counts: counters this process gave past a failed write go on
// from its own, in memory.
std::int64_t Outbox::reachWhileUnreadLocked(const std::string& key) {
  if (!lockedOut_ || heldElsewhere_ || ownUnkeptMark_ || epochStaleLocked())
    return 0;
  const int starts = unkeptStartsLocked(*lockedOut_);
  return starts == 0 ? 0 : unkeptReach(key, lockedOut_->launchUnsent(), starts);
}

// Read once found: the count this process raises later is its own. None found yet (the mark
// not in sight while the store was out of reach) is looked for again. Bounded so that the
// reach stays within the counters' range whatever a store says.
int Outbox::unkeptStartsLocked(const platform::OutboxStore& store) {
  constexpr int kMostStarts = 100'000;
  if (unkeptStartsRead_.value_or(0) == 0) {
    const auto* counted = dynamic_cast<const platform::OutboxUnkeptStarts*>(&store);
    unkeptStartsRead_ = !store.countersUnkept() ? 0
                        : counted != nullptr ? std::clamp(counted->unkeptStarts(), 1, kMostStarts)
                                             : 1;
  }
  return *unkeptStartsRead_;
}

std::int64_t Outbox::counterLocked(const std::string& key) const {
  return keptValue(counters_, key);
}

void Outbox::mergeCountersLocked(const std::vector<platform::OutboxRecord>& first) {
  countersRead_ = true;
  const Json parsed = first.empty() || first.front().id != kCountersRecord
                          ? Json::object()
                          : parseBoundedJson(first.front().content);
  if (parsed.is_object()) {
    keptCounters_ = parsed;
    for (const auto& [key, value] : parsed.items()) {
      const auto mine = counters_.find(key);
      if (mine != counters_.end() && mine->is_number_integer() && value.is_number_integer() &&
          mine->get<std::int64_t>() > value.get<std::int64_t>()) {
        countersDirty_ = true;  // this process's is newer: it is written with the next batch
      } else {
        counters_[key] = value;
      }
    }
  }
  if (!store_ || !store_->countersUnkept())
    return;
  // Earlier starts gave out counters their full disk did not keep, and their reports may have
  // reached the service; each let none go beyond the kept ones by more than its reach, so
  // numbering goes on above theirs. Kept before the mark is cleared.
  countersUnkeptMarked_ = true;
  launchUnsentMarked_ = store_->launchUnsent();
  const int starts = unkeptStartsLocked(*store_);
  for (const std::string key : {keys::kCounter, keys::kInAppCounter}) {
    counters_[key] =
        std::max(counterLocked(key),
                 keptValue(keptCounters_, key) + unkeptReach(key, launchUnsentMarked_, starts));
  }
  countersDirty_ = true;
}

// A write failed with counters in it: the store's mark tells the next start to number above
// the kept ones by the reach. The reports go in any case (a write that fails never stops
// delivery): where no mark can be made (a read-only folder), or a process goes beyond the
// reach, a later start may give a counter again, and the log says so once.
void Outbox::markUnkeptCountersLocked() {
  if (heldElsewhere_)
    return;  // the holder numbers
  platform::OutboxStore* const store = anyStoreLocked();
  if (store != nullptr && !countersUnkeptMarked_) {
    // The launch's mark only where the episode begins: no mark stood (another process's, or one
    // this process read while its store was out of reach) and no request with a launch counter
    // left here since the counters were last kept. A request leaves only after the write that
    // carried its counters, and this is the first such write that failed.
    const bool stood = store->countersUnkept();
    const bool episodeBegins = !stood && !launchLeftUnkept_;
    countersUnkeptMarked_ = store->markCountersUnkept(true);
    ownUnkeptMark_ = countersUnkeptMarked_ && !stood;
    launchUnsentMarked_ = countersUnkeptMarked_ && episodeBegins && store->markLaunchUnsent(true);
  }
  // This start numbered above earlier ones that the mark counts: it counts itself too, or the
  // next start would number where it did.
  const int earlier = unkeptStartsRead_.value_or(0);
  if (store != nullptr && countersUnkeptMarked_ && earlier > 0 && !unkeptStartsRaised_) {
    auto* const counted = dynamic_cast<platform::OutboxUnkeptStarts*>(store);
    unkeptStartsRaised_ = counted != nullptr && counted->markUnkeptStarts(earlier + 1);
  }
  bool beyondReach = false;
  for (const auto& [key, value] : counters_.items()) {
    beyondReach =
        beyondReach || (value.is_number_integer() &&
                        value.get<std::int64_t>() >
                            keptValue(keptCounters_, key) + unkeptReach(key, false, earlier + 1));
  }
  if (!countersUnkeptMarked_ || (earlier > 0 && !unkeptStartsRaised_) || beyondReach)
    logCountersMayRepeatOnce();
}

void Outbox::logCountersMayRepeatOnce() {
  if (unkeptCountersLogged_)
    return;
  unkeptCountersLogged_ = true;
  log_->log(kLogWarning, kMethod,
            "Quorvel outbox: the counters given out cannot be kept; a later start may give "
            "some of them again");
}

void Outbox::noteCountersKeptLocked() {
  keptCounters_ = counters_;
  launchLeftUnkept_ = false;
  ownUnkeptMark_ = false;
  if (countersUnkeptMarked_ && store_ && store_->markCountersUnkept(false)) {
    countersUnkeptMarked_ = false;
    launchUnsentMarked_ = false;
    unkeptStartsRead_ = 0;  // numbering goes on from the counters just kept
    unkeptStartsRaised_ = false;
  }
}

// Before a request with a launch counter leaves (`kept`: its batch's write took the counters):
// from now on it may reach the service, and its counter is never given again. The mark is
// looked for on the store, not only in memory: another process may have made it.
void Outbox::noteLaunchLeavingLocked(bool kept) {
  launchLeftUnkept_ = launchLeftUnkept_ || !kept;
  platform::OutboxStore* const store = anyStoreLocked();
  // The launch's mark never stands without the counters' one: a store that keeps neither is
  // not asked for the second.
  if (heldElsewhere_ || store == nullptr ||
      (!launchUnsentMarked_ && !(store->countersUnkept() && store->launchUnsent())))
    return;
  if (store->markLaunchUnsent(false)) {
    launchUnsentMarked_ = false;
    return;
  }
  logCountersMayRepeatOnce();
}

bool Outbox::numberingIsSafe() {
  if (numberingSafe_.load(std::memory_order_acquire))
    return true;
  const std::lock_guard lock(storeMutex_);
  openLocked();
  if (heldElsewhere_ || !awaitingNumbering_.empty())
    return false;
  numberingSafe_.store(true, std::memory_order_release);
  return true;
}

void Outbox::afterNumberingIsSafe(std::shared_ptr<platform::DispatchQueue> queue,
                                  platform::Work work) {
  queue_->async(
      whileAliveLocked([queue = std::move(queue), work = std::move(work)](Outbox& self) mutable {
        self.openLocked();
        // In line behind what waits already, so that the reports keep the order of their calls.
        self.awaitingNumbering_.emplace_back(std::move(queue), std::move(work));
        if (!self.heldElsewhere_)
          self.releaseNumberingLocked();
      }));
}

void Outbox::releaseNumberingLocked() {
  for (auto& [queue, work] : awaitingNumbering_)
    queue->async(std::move(work));
  awaitingNumbering_.clear();
  // Set after the posts: work that finds it set runs after those on its queue.
  numberingSafe_.store(true, std::memory_order_release);
}

}  // namespace quorvel
