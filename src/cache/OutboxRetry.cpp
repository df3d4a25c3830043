// Reports the service did not take (5xx, 429) or that failed in transport: marked, and sent
// again after the backoff and never before the service's Retry-After; dropped past the age
// bound.
#include "cache/Outbox.h"

#include <algorithm>

#include "cache/Backoff.h"
#include "cache/OutboxShared.h"

namespace quorvel {

using namespace outbox_internal;

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
  if (!slot || slot->settled())
    return;
  slot->failures_.fetch_add(1, std::memory_order_relaxed);
  if (retryAfter && !slot->retrying_.exchange(true))
    retrying_.fetch_add(1, std::memory_order_relaxed);  // an answer: 0 s when it named no time
  if (hold)
    slot->holdUntilSettled(std::move(hold));
  slot->stopSending();
  queue_->async(whileAliveLocked([slot, retryAfter, reached](Outbox& self) {
    if (retryAfter && *retryAfter > std::chrono::seconds::zero()) {
      self.notBeforeAfterClockChangeLocked();  // so that a longer wait named now is kept
      const auto wait = std::min<std::chrono::milliseconds>(*retryAfter, kRetryBackoff.cap);
      const auto now = self.clock_->now();
      if (now + wait > self.notBefore_) {
        self.notBefore_ = now + wait;
        self.notBeforeSetAt_ = now;
        self.notBeforeWait_ = wait;
      }
    }
    self.markForRetryLocked(slot, reached);
  }));
}

void Outbox::markForRetryLocked(const OutboxSlotPtr& slot, bool reached) {
  writeBufferedLocked();  // so that the slot has its number
  if (reached)
    slot->reached_ = true;
  if (const auto it = held_.find(slot->id_); it != held_.end()) {
    auto& held = it->second;
    held.failed = true;
    // A 503 for this copy says nothing of an earlier one that may have reached the service:
    // only a report no copy of which can have reached it is rewritten "unsent".
    if (!slot->reached_ && held.request && !held.unsent) {
      std::vector<platform::OutboxChange> change{
          {slot->id_, requestRecord(slot->acceptedAt(), *held.request, false)}};
      writeChangesLocked(change);  // or later, with what the store refused before it
      held.unsent = true;
    }
  }
  scheduleRetry();
}

void Outbox::noteRepeat(bool withdrawn) noexcept {
  if (withdrawn)
    repeated_.fetch_sub(1, std::memory_order_relaxed);  // always after its own count
  else
    repeated_.fetch_add(1, std::memory_order_relaxed);
}

void Outbox::noteCopyLeavingLocked(Held& held, std::vector<platform::OutboxChange>& changes) {
  // A launch that may reach the service now: its counter is never given again.
  if (held.request && held.request->carriesLaunchCounter() && !(sendsHeld_ && sendsHeld_()))
    noteLaunchLeavingLocked(!countersUnkeptMarked_);
  if (!held.unsent || !held.request)
    return;
  held.unsent = false;
  changes.push_back({held.slot->id_, requestRecord(held.slot->acceptedAt(), *held.request, true)});
}

void Outbox::transportRecovered() {
  queue_->async(whileAliveLocked([](Outbox& self) { self.retryAttempt_ = 0; }));
}

void Outbox::sendsResumed() {
  queue_->async(whileAliveLocked([](Outbox& self) {
    self.retryAttempt_ = 0;
    self.retryFailedLocked();
  }));
}

// The Retry-After is a time on the wall clock: one set back while the retries wait would hold
// them for as long again (half an hour back held them for the whole cap). The wait the service
// named then counts again from now: at most that much more, never the clock's jump.
void Outbox::notBeforeAfterClockChangeLocked() {
  const auto now = clock_->now();
  if (now >= notBeforeSetAt_)
    return;
  notBefore_ = now + notBeforeWait_;
  notBeforeSetAt_ = now;
}

void Outbox::scheduleRetry() {
  if (retryScheduled_)
    return;
  retryScheduled_ = true;
  // Never before the time the service asked for (its Retry-After), within the cap.
  notBeforeAfterClockChangeLocked();
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
  // While the user stops the library, nothing leaves: a copy sent now would only be held back
  // on its way, its record said sent for nothing. sendsResumed() tries again.
  if (!resend_ || (sendsHeld_ && sendsHeld_()))
    return;
  notBeforeAfterClockChangeLocked();
  if (clock_->now() < notBefore_) {
    scheduleRetry();
    return;
  }
  notBeforeWait_ = {};  // served: a clock set back later brings no wait of it back
  std::vector<Held*> leaving;
  std::vector<platform::OutboxChange> changes;
  for (auto& [id, held] : held_) {
    if (!held.failed || !held.request || !held.slot->startSending())
      continue;
    held.failed = false;
    noteCopyLeavingLocked(held, changes);
    leaving.push_back(&held);
  }
  writeChangesLocked(changes);  // before the copies leave
  for (Held* held : leaving) {
    const double waited = std::max(0.0, seconds(clock_->now()) - seconds(held->slot->acceptedAt()));
    resend_(held->slot, *held->request, waited);
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
  if (!expired.empty())
    logDroppedForAge(*log_, expired.size(), limits_.maxAge);
}

}  // namespace quorvel
