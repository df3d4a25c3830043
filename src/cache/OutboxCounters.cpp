// The counters a request carries, kept with the reports (record 0), and the numbering gate:
// counters are given out only by the process that holds the data directory.
#include "cache/Outbox.h"

#include <algorithm>

#include "cache/OutboxShared.h"
#include "util/BoundedJson.h"

namespace quorvel {

using namespace outbox_internal;

void Outbox::noteCounter(const std::string& key, std::int64_t value) {
  const std::lock_guard lock(bufferMutex_);
  auto& noted = noted_[key];
  noted = std::max(noted, value);
}

// The kept counters are read the first time one is asked for, on the asking thread and outside
// the store's lock: the read may wait for the store to take in what an earlier process left,
// and the writer's batches go on meanwhile.
std::optional<std::int64_t> Outbox::counterFloor(const std::string& key) {
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

std::int64_t Outbox::counterLocked(const std::string& key) const {
  const auto it = counters_.find(key);
  return it != counters_.end() && it->is_number_integer() ? it->get<std::int64_t>() : 0;
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

}  // namespace quorvel
