// The outbox's buffer, its writer on the outbox's queue, its bounds and its replay.
#include "cache/Outbox.h"

#include <algorithm>

#include "cache/Backoff.h"
#include "util/BoundedJson.h"

namespace quorvel {
namespace {

constexpr const char* kMethod = "-[QuorvelOutbox write]";
constexpr std::chrono::seconds kSyncInterval{1};
// Well within the promise of a record on disk 10 ms after the call.
constexpr std::chrono::microseconds kBatchWindow{500};
// A burst's calls go in batches of a bounded size, so that no batch holds the whole burst
// serialised in memory at once.
constexpr std::size_t kMaxBatch = 512;
// The promise: a report is on its way to the disk (written to the kernel) this soon.
constexpr std::chrono::milliseconds kPromptWrite{10};
// The record that keeps the counters; reports are numbered from 1.
constexpr std::int64_t kCountersRecord = 0;

double seconds(platform::TimePoint t) {
  return platform::secondsSince1970(t);
}

platform::TimePoint fromSeconds(double s) {
  return platform::TimePoint(
      std::chrono::duration_cast<platform::TimePoint::duration>(std::chrono::duration<double>(s)));
}

const char* kindName(OutboxIntent::Kind kind) {
  switch (kind) {
    case OutboxIntent::Kind::launch:
      return "launch";
    case OutboxIntent::Kind::eventWithValues:
      return "values";
    case OutboxIntent::Kind::event:
      break;
  }
  return "event";
}

}  // namespace

void OutboxSlot::holdUntilSettled(std::shared_ptr<void> hold) {
  const std::lock_guard lock(holdMutex_);
  if (!settled_)
    hold_ = std::move(hold);
}

bool OutboxSlot::holdsPlace() {
  const std::lock_guard lock(holdMutex_);
  return hold_ != nullptr;
}

bool OutboxSlot::settle() {
  if (settled_.exchange(true))
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

// --- The host's side --------------------------------------------------------------------------

OutboxSlotPtr Outbox::accept(OutboxIntent intent, platform::TimePoint at) {
  auto slot = std::make_shared<OutboxSlot>(at);
  accepted_.fetch_add(1, std::memory_order_relaxed);
  waiting_.fetch_add(1, std::memory_order_relaxed);
  enqueue(Put{slot, {}, std::move(intent), nullptr, nullptr});
  return slot;
}

OutboxSlotPtr Outbox::acceptBuilt() {
  auto slot = std::make_shared<OutboxSlot>(clock_->now());
  accepted_.fetch_add(1, std::memory_order_relaxed);
  waiting_.fetch_add(1, std::memory_order_relaxed);
  return slot;
}

void Outbox::noteCounter(const std::string& key, std::int64_t value) {
  const std::lock_guard lock(bufferMutex_);
  auto& noted = noted_[key];
  noted = std::max(noted, value);
}

// The kept counters are read the first time one is asked for, on the asking thread and outside
// the store's lock: the read may wait for the store to take in what an earlier process left,
// and the writer's batches go on meanwhile.
std::int64_t Outbox::counterFloor(const std::string& key) {
  std::shared_ptr<platform::OutboxStore> store;
  std::uint64_t generation = 0;
  {
    const std::lock_guard lock(storeMutex_);
    openLocked();
    if (countersRead_ || !store_)
      return counterLocked(key);
    store = store_;
    generation = forgetGeneration_;
  }
  const auto first = store->load(kCountersRecord - 1, 1);
  const std::lock_guard lock(storeMutex_);
  if (!countersRead_ && store_ == store && generation == forgetGeneration_)
    mergeCountersLocked(first);
  return counterLocked(key);
}

std::int64_t Outbox::counterLocked(const std::string& key) const {
  const auto it = counters_.find(key);
  return it != counters_.end() && it->is_number_integer() ? it->get<std::int64_t>() : 0;
}

void Outbox::built(const OutboxSlotPtr& slot, const QuorvelRequestCacheData& request,
                   std::function<void()> send) {
  if (!slot || slot->settled_)
    return;
  std::string content = requestRecord(slot->acceptedAt(), request, true);
  enqueue(Put{slot, std::move(content), std::nullopt,
              std::make_shared<const QuorvelRequestCacheData>(request), std::move(send)});
}

bool Outbox::settleCounted(const OutboxSlotPtr& slot, std::atomic<std::uint64_t>& counter) {
  if (!slot)
    return false;
  replayCameBack(slot);
  if (!slot->settle())
    return false;
  slot->stopSending();
  if (slot->retrying_.exchange(false))
    retrying_.fetch_sub(1, std::memory_order_relaxed);
  counter.fetch_add(1, std::memory_order_relaxed);
  waiting_.fetch_sub(1, std::memory_order_relaxed);
  enqueue(Remove{slot});
  return true;
}

// Every event's request passes here: neither base64 nor JSON escaping of the body is worth
// its cost. A record whose request cannot have reached the service says so.
std::string Outbox::requestRecord(platform::TimePoint at, const QuorvelRequestCacheData& request,
                                  bool reached) {
  Json head = Json::object();
  head["at"] = seconds(at);
  head["kind"] = "request";
  head["url"] = request.requestURL().value_or(std::string());
  head["version"] = request.sdkVersion().value_or(std::string());
  if (!reached)
    head["unsent"] = true;
  std::string content = head.dump(-1, ' ', false, Json::error_handler_t::replace);
  content += '\n';
  if (const auto& body = request.postData())
    content.append(body->begin(), body->end());
  return content;
}

void Outbox::noteFolderAnswer(long status) {
  if (status >= 200 && status < 300)
    delivered_.fetch_add(1, std::memory_order_relaxed);
  else if (status >= 400 && status < 500 && status != 429)
    refused_.fetch_add(1, std::memory_order_relaxed);
}

void Outbox::answered(const OutboxSlotPtr& slot) {
  settleCounted(slot, delivered_);
}

void Outbox::refused(const OutboxSlotPtr& slot) {
  settleCounted(slot, refused_);
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

// A 5xx or a 429 is not a delivery: the service says it did not take the report. The report
// therefore stays and goes again, where a kept request answered so used to be deleted like
// one answered 200: a service that is overloaded or restarting would otherwise lose every
// report it refused in that moment, and an outage on the service's side is exactly when
// reports pile up.
void Outbox::answeredRetryLater(const OutboxSlotPtr& slot,
                                std::optional<std::chrono::seconds> retryAfter,
                                std::shared_ptr<void> hold, bool reached) {
  if (slot)
    replayCameBack(slot);
  if (!slot || slot->settled_)
    return;
  if (retryAfter && !slot->retrying_.exchange(true))
    retrying_.fetch_add(1, std::memory_order_relaxed);  // an answer: 0 s when it named no time
  if (hold)
    slot->holdUntilSettled(std::move(hold));
  slot->stopSending();
  std::weak_ptr<Outbox> weak = weak_from_this();
  queue_->async([weak, slot, retryAfter, reached] {
    const auto self = weak.lock();
    if (!self)
      return;
    const std::lock_guard lock(self->storeMutex_);
    if (retryAfter && *retryAfter > std::chrono::seconds::zero()) {
      const auto wait = std::min<std::chrono::milliseconds>(*retryAfter, kRetryBackoff.cap);
      self->notBefore_ = std::max(self->notBefore_, self->clock_->now() + wait);
    }
    self->markForRetryLocked(slot, reached);
  });
}

void Outbox::markForRetryLocked(const OutboxSlotPtr& slot, bool reached) {
  writeBufferedLocked();  // so that the slot has its number
  if (const auto it = held_.find(slot->id_); it != held_.end()) {
    it->second.failed = true;
    if (!reached && it->second.request) {
      // Rewritten so that a later start's copy is not counted as a repeat.
      std::vector<platform::OutboxChange> change{
          {slot->id_, requestRecord(slot->acceptedAt(), *it->second.request, false)}};
      writeChangesLocked(change);
    }
  }
  scheduleRetry();
}

void Outbox::enqueue(Op op) {
  // A built request waits for its record before it leaves: it is written at once. What the
  // host's calls accept, and removals, wait for a short window, so that a burst costs the
  // host's thread no wake-up of the writer per call, and the disk one transaction per window.
  const auto* put = std::get_if<Put>(&op);
  bool writeNow = put != nullptr && put->then;
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

// --- The writer ---------------------------------------------------------------------------------

void Outbox::openLocked() {
  if (opened_)
    return;
  opened_ = true;
  std::string reason = "no outbox store";
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
                "Quorvel: another process uses this app's data directory (%@): this tracker keeps "
                "its reports in memory, and builds and sends them once that process lets the "
                "directory go; the kept requests there are left to that process",
                reason);
    } else {
      // A full disk or a folder not yet writable passes: the store is tried again, and what
      // is unanswered then is written.
      notKeptLogged_ = true;
      log_->log(kLogWarning, kMethod,
                "Quorvel outbox unavailable (%@): reports are not kept on disk and go from "
                "memory; those unanswered when the process ends are lost. It is tried again",
                reason);
    }
    lockedOut_ = std::move(store_);
    scheduleLockRetry();
    return;
  }
  readStoreLocked();
}

// Nothing of what an earlier process left is read now: this process's records are numbered
// above it and written from the first batch on, while those are read a page at a time on
// the sync queue, and the counters when the first one is asked for.
void Outbox::readStoreLocked() {
  noteUnreadableLocked();
  // What other processes kept while they could not open the store: taken off this thread.
  std::weak_ptr<Outbox> weak = weak_from_this();
  syncQueue_->async([weak, store = store_] {
    if (const auto self = weak.lock())
      self->adoptGuests(store);
  });
  leftoversEnd_ = store_->idFloor() - 1;
  lastId_ = std::max(lastId_, leftoversEnd_);
  countersRead_ = false;
  loadedUpTo_ = kCountersRecord;
  if (loadedUpTo_ < leftoversEnd_)
    scheduleLeftoverPage();
}

void Outbox::mergeCountersLocked(const std::vector<platform::OutboxRecord>& first) {
  countersRead_ = true;
  if (first.empty() || first.front().id != kCountersRecord)
    return;
  const Json parsed = parseBoundedJson(first.front().content);
  if (!parsed.is_object())
    return;
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

// --- Another process's data directory -------------------------------------------------------

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
  std::weak_ptr<Outbox> weak = weak_from_this();
  queue_->async([weak, queue = std::move(queue), work = std::move(work)]() mutable {
    const auto self = weak.lock();
    if (!self)
      return;
    const std::lock_guard lock(self->storeMutex_);
    self->openLocked();
    // In line behind what waits already, so that the reports keep the order of their calls.
    self->awaitingNumbering_.emplace_back(std::move(queue), std::move(work));
    if (!self->heldElsewhere_)
      self->releaseNumberingLocked();
  });
}

void Outbox::releaseNumberingLocked() {
  for (auto& [queue, work] : awaitingNumbering_)
    queue->async(std::move(work));
  awaitingNumbering_.clear();
  // Set after the posts: work that finds it set runs after those on its queue.
  numberingSafe_.store(true, std::memory_order_release);
}

void Outbox::scheduleLockRetry() {
  runLocked(&Outbox::retryLockLocked, kLockBackoff.delay(lockAttempt_++, backoffRandom()));
}

void Outbox::retryLockLocked() {
  if (!lockedOut_ || platform::forkGeneration() != forkGeneration_)
    return;
  if (!takeFreedLockLocked())
    scheduleLockRetry();
}

bool Outbox::takeFreedLockLocked() {
  std::string reason;
  if (!lockedOut_->open(reason)) {
    if (lockedOut_->heldByAnotherProcess())
      return false;
    if (heldElsewhere_) {
      log_->log(kLogWarning, kMethod,
                "Quorvel outbox unavailable (%@): reports are not kept on disk and go from "
                "memory; those unanswered when the process ends are lost. It is tried again",
                reason);
      notKeptLogged_ = true;
      heldElsewhere_ = false;
      releaseNumberingLocked();
    }
    return false;
  }
  store_ = std::move(lockedOut_);
  heldElsewhere_ = false;
  durable_ = true;
  log_->log(kLogInfo, kMethod,
            "Quorvel: this process now holds the app's data directory: its reports are kept on "
            "disk, numbered and sent from now on");
  readStoreLocked();
  writeHeldLocked();
  releaseNumberingLocked();
  return true;
}

// Nothing of this process reached the store: its reports are numbered anew, after the store's
// own, and what is unanswered of them is written; the counters go as they are.
void Outbox::writeHeldLocked() {
  std::map<std::int64_t, Held> renumbered;
  std::vector<platform::OutboxChange> changes;
  changes.reserve(held_.size() + 1);
  if (const auto it = unwritten_.find(kCountersRecord); it != unwritten_.end() && it->second)
    changes.push_back({kCountersRecord, std::move(it->second)});
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
}

// Pages are read and parsed on the sync queue, outside the store's lock: a page takes
// milliseconds, which the writer's thread must not spend while this run's calls wait for it.
void Outbox::scheduleLeftoverPage() {
  std::weak_ptr<Outbox> weak = weak_from_this();
  syncQueue_->async([weak] {
    if (const auto self = weak.lock())
      self->loadLeftoverPage();
  });
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
  const auto page = store->load(after, kPage);
  struct Read {
    std::int64_t id;
    std::size_t bytes;
    std::optional<Leftover> left;  // none: unreadable
  };
  std::vector<Read> read;
  read.reserve(page.size());
  // Records come by number: the first of this process's own ends the earlier one's.
  bool lastPage = page.size() < kPage;
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
    if (loadedUpTo_ < leftoversEnd_)
      scheduleLeftoverPage();
  }
  if (!unbuilt.empty() && take)
    take(std::move(unbuilt));
}

std::optional<Outbox::Leftover> Outbox::parseLeftover(const platform::OutboxRecord& record) {
  const auto headEnd = record.content.find('\n');
  const Json parsed = parseBoundedJson(record.content.substr(0, headEnd));
  if (!parsed.is_object())
    return std::nullopt;
  auto slot = std::make_shared<OutboxSlot>(fromSeconds(parsed.value("at", 0.0)));
  slot->id_ = record.id;
  Leftover left;
  left.slot = slot;
  const std::string kind = parsed.value("kind", "");
  if (kind == "request") {
    const std::string_view body = headEnd == std::string::npos
                                      ? std::string_view()
                                      : std::string_view(record.content).substr(headEnd + 1);
    left.request = QuorvelRequestCacheData(parsed.value("url", ""), Bytes(body.begin(), body.end()),
                                           parsed.value("version", ""));
    left.wasSent = !parsed.value("unsent", false);
  } else {
    OutboxIntent intent;
    intent.kind = kind == "launch"   ? OutboxIntent::Kind::launch
                  : kind == "values" ? OutboxIntent::Kind::eventWithValues
                                     : OutboxIntent::Kind::event;
    intent.name = parsed.value("name", "");
    if (const auto v = parsed.find("value"); v != parsed.end() && v->is_string())
      intent.value = v->get<std::string>();
    if (const auto v = parsed.find("values"); v != parsed.end())
      intent.values = *v;
    left.intent = std::move(intent);
  }
  return left;
}

void Outbox::keepLeftoverLocked(Leftover left, std::size_t bytes) {
  Held held;
  held.slot = left.slot;
  held.bytes = bytes;
  held.onDisk = true;
  if (left.request)
    held.request = std::make_shared<const QuorvelRequestCacheData>(*left.request);
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
      if (left.slot->settle()) {
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
    waiting_.fetch_sub(1, std::memory_order_relaxed);
    droppedForAge_.fetch_add(1, std::memory_order_relaxed);
    return true;
  });
  if (expired.empty())
    return;
  log_->log(kLogWarning, kMethod, "Quorvel outbox: %lu reports older than %lld s dropped",
            static_cast<unsigned long>(expired.size()),
            static_cast<long long>(limits_.maxAge.count()));
  if (store_)
    store_->apply(expired);
}

std::string Outbox::serialise(const Put& put) {
  if (!put.intent)
    return put.content;
  Json record = Json::object();
  record["at"] = seconds(put.slot->acceptedAt());
  record["kind"] = kindName(put.intent->kind);
  record["name"] = put.intent->name;
  if (put.intent->value)
    record["value"] = *put.intent->value;
  if (put.intent->values)
    record["values"] = *put.intent->values;
  return record.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void Outbox::writeBufferedLocked() {
  writeScheduled_ = false;
  promptWriteScheduled_ = false;
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
  if (heldElsewhere_ && lockedOut_)
    handOverToHolderLocked(batch);
  if (!noted.empty() && !countersRead_ && store_)
    mergeCountersLocked(store_->load(kCountersRecord - 1, 1));  // never written over unread
  for (const auto& [key, value] : noted) {
    const auto it = counters_.find(key);
    if (it == counters_.end() || !it->is_number_integer() || it->get<std::int64_t>() < value) {
      counters_[key] = value;
      countersDirty_ = true;
    }
  }
  if (batch.empty() && !countersDirty_ && (unwritten_.empty() || !store_))
    return;
  std::vector<platform::OutboxChange> changes;
  changes.reserve(batch.size() + 1);
  if (countersDirty_)
    changes.push_back({kCountersRecord, counters_.dump()});
  std::vector<std::function<void()>> sends;
  std::optional<platform::TimePoint> firstCall;
  std::size_t calls = 0;
  for (auto& op : batch) {
    if (auto* put = std::get_if<Put>(&op)) {
      if (put->slot->settled_)
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
      if (put->then)
        sends.push_back(put->then);
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
  if (!writeChangesLocked(changes) && !heldElsewhere_)
    countNotKeptLocked();
  // The rest of a burst, at once.
  if (more && !promptWriteScheduled_.exchange(true))
    runLocked(&Outbox::writeBufferedLocked);
  // Shown when debugging: a kill in such a gap takes these calls with it.
  if (const auto late =
          firstCall ? clock_->now() - *firstCall : platform::TimePoint::duration::zero();
      late > kPromptWrite) {
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
  for (const auto& send : sends)
    send();
  if (store_ && !syncScheduled_) {
    syncScheduled_ = true;
    const auto since = clock_->now() - lastSync_;
    const auto wait =
        since >= kSyncInterval
            ? std::chrono::nanoseconds::zero()
            : std::chrono::duration_cast<std::chrono::nanoseconds>(kSyncInterval - since);
    // On a queue of its own: a flush to a slow disk never holds up the writes.
    std::weak_ptr<Outbox> weak = weak_from_this();
    syncQueue_->asyncAfter(wait, [weak] {
      const auto self = weak.lock();
      if (!self)
        return;
      std::shared_ptr<platform::OutboxStore> store;
      {
        const std::lock_guard lock(self->storeMutex_);
        self->syncScheduled_ = false;
        self->lastSync_ = self->clock_->now();
        store = self->store_;
      }
      const bool synced = !store || store->sync();
      if (store)
        self->adoptGuests(store);
      const std::lock_guard lock(self->storeMutex_);
      self->noteSyncLocked(synced);
    });
  }
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
  if (store_ && store_->apply(changes)) {
    for (const auto& change : changes) {
      if (const auto it = held_.find(change.id); change.content && it != held_.end())
        it->second.onDisk = true;
    }
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
            store_ ? store_->lastError() : std::string("no store"));
}

void Outbox::scheduleRewrite() {
  if (rewriteScheduled_)
    return;
  rewriteScheduled_ = true;
  runLocked(&Outbox::rewriteLocked, kRewriteBackoff.delay(rewriteAttempt_++, backoffRandom()));
}

void Outbox::rewriteLocked() {
  rewriteScheduled_ = false;
  writeBufferedLocked();
}

void Outbox::noteSyncLocked(bool synced) {
  if (synced) {
    syncFailureLogged_ = false;
    return;
  }
  syncFailures_.fetch_add(1, std::memory_order_relaxed);
  if (syncFailureLogged_)
    return;
  syncFailureLogged_ = true;
  log_->log(kLogWarning, kMethod,
            "Quorvel outbox: cannot move the written reports into the database (%@); they stay in "
            "the intake file and the move is tried again",
            store_ ? store_->lastError() : std::string("no store"));
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
    if (slot && slot->settle()) {
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

// --- Replay -----------------------------------------------------------------------------------

void Outbox::setResend(Resend resend) {
  const std::lock_guard lock(storeMutex_);
  resend_ = std::move(resend);
}

void Outbox::setKeptElsewhere(std::function<bool(const QuorvelRequestCacheData&)> keptElsewhere) {
  const std::lock_guard lock(storeMutex_);
  keptElsewhere_ = std::move(keptElsewhere);
}

void Outbox::resume(std::function<void(std::vector<Leftover>)> take) {
  std::weak_ptr<Outbox> weak = weak_from_this();
  queue_->async([weak, take = std::move(take)] {
    const auto self = weak.lock();
    if (!self)
      return;
    std::vector<Leftover> unbuilt;
    {
      const std::lock_guard lock(self->storeMutex_);
      self->openLocked();
      if (self->resumed_)
        return;
      self->resumed_ = true;
      self->take_ = take;
      unbuilt = self->releaseLeftoversLocked();
    }
    if (!unbuilt.empty())
      take(std::move(unbuilt));
  });
}

// An earlier run may have left thousands of built requests. They go in chunks, each a task of
// its own, so that the writes of this run's reports (queued meanwhile) are never held up
// behind all of them, and no more than the build throttle's worth are on the wire at once.
void Outbox::replayChunkLocked() {
  constexpr std::size_t kChunk = 64;
  constexpr std::size_t kMaxInFlight = 128;
  replayChunkScheduled_ = false;
  for (std::size_t n = 0; n < kChunk && !replays_.empty() && replaysInFlight_ < kMaxInFlight; ++n) {
    Leftover left = std::move(replays_.front());
    replays_.pop_front();
    if (resend_ && !left.slot->settled_ && left.slot->startSending()) {
      left.slot->replay_ = true;
      replaysInFlight_.fetch_add(1);
      if (left.wasSent)
        repeated_.fetch_add(1, std::memory_order_relaxed);
      // A clock set back never makes a report younger than its call.
      const double waited =
          std::max(0.0, seconds(clock_->now()) - seconds(left.slot->acceptedAt()));
      resend_(left.slot, *left.request, waited);
    }
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

// Runs `method` on the outbox's queue with the store's lock held, if the outbox still exists.
void Outbox::runLocked(void (Outbox::*method)(), std::chrono::nanoseconds after) {
  std::weak_ptr<Outbox> weak = weak_from_this();
  auto work = [weak, method] {
    if (const auto self = weak.lock()) {
      const std::lock_guard lock(self->storeMutex_);
      ((*self).*method)();
    }
  };
  if (after > std::chrono::nanoseconds::zero())
    queue_->asyncAfter(after, std::move(work));
  else
    queue_->async(std::move(work));
}

void Outbox::transportRecovered() {
  std::weak_ptr<Outbox> weak = weak_from_this();
  queue_->async([weak] {
    if (const auto self = weak.lock()) {
      const std::lock_guard lock(self->storeMutex_);
      self->retryAttempt_ = 0;
    }
  });
}

void Outbox::scheduleRetry() {
  if (retryScheduled_)
    return;
  retryScheduled_ = true;
  // Never before the time the service asked for (its Retry-After), within the cap: a clock set
  // back never holds the retries for longer.
  if (notBefore_ - clock_->now() > kRetryBackoff.cap)
    notBefore_ = clock_->now() + kRetryBackoff.cap;
  const auto delay =
      std::max(kRetryBackoff.delay(retryAttempt_++, backoffRandom()),
               std::chrono::duration_cast<std::chrono::milliseconds>(notBefore_ - clock_->now()));
  log_->log(kLogDebug, kMethod, "Quorvel outbox: reports wait; next try in %lld ms",
            static_cast<long long>(delay.count()));
  runLocked(&Outbox::retryFailedLocked, delay);
}

void Outbox::retryFailedLocked() {
  retryScheduled_ = false;
  dropExpiredHeldLocked();
  if (!resend_)
    return;
  if (clock_->now() < notBefore_) {
    scheduleRetry();
    return;
  }
  for (auto& [id, held] : held_) {
    if (!held.failed || !held.request || !held.slot->startSending())
      continue;
    held.failed = false;
    const double waited = std::max(0.0, seconds(clock_->now()) - seconds(held.slot->acceptedAt()));
    resend_(held.slot, *held.request, waited);
  }
}

// The age bound holds for every report that waits, this process's own among them: one that
// the service refused with 5xx for a month is dropped like one found that old at start.
void Outbox::dropExpiredHeldLocked() {
  const auto now = clock_->now();
  std::vector<OutboxSlotPtr> expired;
  for (const auto& [id, held] : held_) {
    if (held.slot && now - held.slot->acceptedAt() > limits_.maxAge && !held.slot->inFlight_)
      expired.push_back(held.slot);
  }
  for (const auto& slot : expired)
    settleCounted(slot, droppedForAge_);
  if (!expired.empty()) {
    log_->log(kLogWarning, kMethod, "Quorvel outbox: %lu reports older than %lld s dropped",
              static_cast<unsigned long>(expired.size()),
              static_cast<long long>(limits_.maxAge.count()));
  }
}

// --- Durability and figures ---------------------------------------------------------------

void Outbox::drainAndSync() noexcept {
  if (platform::forkGeneration() != forkGeneration_)
    return;  // a forked child's copy: the store is its parent's
  try {
    const std::lock_guard lock(storeMutex_);
    // The process that held the data directory may have ended since the last try; an exit
    // that did not try again would lose what this one kept in memory meanwhile.
    if (lockedOut_)
      takeFreedLockLocked();
    writeBufferedLocked();
    if (store_)
      store_->sync();
    lastSync_ = clock_->now();
  } catch (...) {
    // Exit and background paths never throw.
  }
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

void Outbox::handOverToHolderLocked(std::vector<Op>& batch) {
  std::vector<platform::OutboxChange> changes;
  std::vector<OutboxSlotPtr> slots;
  for (auto& op : batch) {
    const auto* put = std::get_if<Put>(&op);
    if (put == nullptr || !put->intent || put->slot->settled_)
      continue;
    try {
      changes.push_back({++lastId_, serialise(*put)});
    } catch (const std::exception&) {
      continue;  // kept in memory like the rest
    }
    slots.push_back(put->slot);
  }
  if (changes.empty() || !lockedOut_->appendAsGuest(changes))
    return;
  // Settled here: the builds that wait for the data directory skip them, and the holder sends
  // them under its own counters.
  for (const auto& slot : slots)
    settleCounted(slot, handedOver_);
  log_->log(kLogDebug, kMethod,
            "Quorvel: %lu reports kept on disk for the process that holds the data directory",
            static_cast<unsigned long>(slots.size()));
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
  if (!store_)
    return false;
  std::vector<std::pair<Leftover, std::size_t>> adopted;
  std::vector<platform::OutboxChange> changes;
  for (auto& record : records) {
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
  return true;
}

void Outbox::scheduleGuestWatch() {
  if (guestWatchScheduled_ || clock_->now() >= guestWatchUntil_)
    return;
  guestWatchScheduled_ = true;
  std::weak_ptr<Outbox> weak = weak_from_this();
  syncQueue_->asyncAfter(std::chrono::seconds(2), [weak] {
    const auto self = weak.lock();
    if (!self)
      return;
    std::shared_ptr<platform::OutboxStore> store;
    {
      const std::lock_guard lock(self->storeMutex_);
      self->guestWatchScheduled_ = false;
      store = self->store_;
    }
    if (store)
      self->adoptGuests(store);
    const std::lock_guard lock(self->storeMutex_);
    self->scheduleGuestWatch();
  });
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

bool Outbox::allKept() noexcept {
  const std::lock_guard lock(storeMutex_);
  return store_ != nullptr && unwritten_.empty();
}

void Outbox::openSoon() {
  runLocked(&Outbox::openLocked);
}

void Outbox::syncSoon() {
  std::weak_ptr<Outbox> weak = weak_from_this();
  queue_->async([weak] {
    if (const auto self = weak.lock())
      self->drainAndSync();
  });
}

bool Outbox::forgetAll() noexcept {
  try {
    const std::lock_guard lock(storeMutex_);
    openLocked();
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
      if (slot && slot->settle()) {
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
    ++forgetGeneration_;  // a page being read now is dropped
    counters_ = Json::object();
    countersDirty_ = false;
    if (!store_)
      return !heldElsewhere_;  // another process's store is not this one's to forget
    if (store_->destroy()) {
      // Opened again, new and empty, only when a report comes: a stopped library leaves no file.
      opened_ = false;
      return true;
    }
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
  } catch (...) {
    return false;  // the caller's marker stays: the next start finishes the job
  }
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
