// The tracker's side of the outbox: reports accepted at the host's call, what an earlier
// process left unanswered, and the delivery figures.
#include "tracker/TrackerCore.h"

#include "cache/QuorvelRequestCache.h"
#include "log/Log.h"
#include "tracker/TrackerLifetime.h"
#include "tracker/TrackerNames.h"
#include "util/WorkContext.h"

namespace quorvel {

ReportLedger::TicketPtr TrackerCore::acceptReport(OutboxIntent intent, platform::TimePoint at) {
  resumeOutboxOnce();
  return ledger_->open(outbox_->accept(std::move(intent), at));
}

ReportLedger::TicketPtr TrackerCore::acceptReport(OutboxIntent intent) {
  // Events called before this report come first.
  acceptIntake();
  return acceptReport(std::move(intent), platform_->clock->now());
}

void TrackerCore::resumeOutboxOnce() {
  if (outboxResumed_.exchange(true))
    return;
  // Built reports go out at once from the outbox's queue; unbuilt ones are built here, once
  // the host has configured the tracker (this runs at its first tracking call).
  outbox_->resume([self = self_](std::vector<Outbox::Leftover> leftovers) {
    if (const auto tracker = self->pin())
      tracker->rebuildLeftovers(std::move(leftovers));
  });
}

// Half a second after the tracker has its key and app id: the host's configuration calls that
// follow (its domain, its switches) come first, and a tracking call before then resumes at once.
void TrackerCore::scheduleOutboxResume() {
  constexpr std::chrono::milliseconds kResumeDelay{500};
  if (outboxResumed_ || !read(quorvelDevKey_) || !read(appleAppID_) || isStopped() ||
      outboxResumeScheduled_.exchange(true))
    return;
  outbox_->openSoon();
  mBackgroundQueue_->asyncAfter(kResumeDelay, [self = self_] {
    const auto tracker = self->pin();
    if (!tracker)
      return;
    if (tracker->isStopped()) {
      tracker->outboxResumeScheduled_ = false;  // the opt-in schedules it again
      if (!tracker->isStopped())
        tracker->scheduleOutboxResume();  // an opt-in came between the look and the flag
      return;
    }
    tracker->resumeOutboxOnce();
    // The kept-request files an earlier run left go too, without waiting for an answer; as a
    // report of its own, so that a flush (the exit's) waits for their replay.
    if (!tracker->outbox_->dataDirectoryHeldElsewhere()) {
      const ReportLedger::Scope scope(tracker->ledger_->open());
      tracker->requestCache_->processCache();
    }
  });
}

void TrackerCore::rebuildLeftovers(std::vector<Outbox::Leftover> leftovers) {
  log_->log(kLogDebug, "-[QuorvelTracker resumeOutbox]",
            "Quorvel: %lu reports of an earlier run are built now",
            static_cast<unsigned long>(leftovers.size()));
  for (auto& left : leftovers) {
    if (!left.intent)
      continue;
    auto ticket = ledger_->open(left.slot);
    mBackgroundQueue_->async(
        carryReport(std::move(ticket), [self = self_, intent = std::move(*left.intent)]() mutable {
          const auto tracker = self->pin();
          if (!tracker)
            return;
          tracker->ledger_->buildWhenThereIsRoom(
              tracker->mBackgroundQueue_, inCurrentWorkContext([self, intent = std::move(intent)] {
                const auto pinned = self->pin();
                if (!pinned)
                  return;
                switch (intent.kind) {
                  case OutboxIntent::Kind::launch:
                    pinned->callServerWithEventName(kLaunchEventName);
                    break;
                  case OutboxIntent::Kind::eventWithValues:
                    pinned->buildEventWithValues(intent.name, intent.values);
                    break;
                  case OutboxIntent::Kind::event:
                    pinned->callServerWithEventName(intent.name, intent.value, true, false);
                    break;
                }
              }),
              ReportLedger::Origin::earlierRun);
        }));
  }
}

void TrackerCore::dropCurrentReport() {
  if (const auto ticket = ReportLedger::current(); ticket && ticket->outbox())
    outbox_->dropped(ticket->outbox(), Outbox::DropReason::rule);
}

void TrackerCore::setOutboxLimits(std::uint64_t maxBytes, std::chrono::seconds maxAge) {
  outbox_->setLimits(Outbox::Limits{maxBytes, maxAge});
  requestCache_->setMaxAge(maxAge);
}

QuorvelDeliveryStats TrackerCore::deliveryStats() {
  acceptIntake();
  const OutboxStats s = outbox_->stats();
  QuorvelDeliveryStats out;
  out.accepted = s.accepted;
  out.delivered = s.delivered;
  out.refused = s.refused;
  out.retrying = s.retrying;
  out.notKept = s.notKept;
  out.droppedUnreadable = s.droppedUnreadable + requestCache_->unreadableRemoved();
  out.waiting = s.waiting;
  out.keptAsFiles = s.handedToFolder;
  out.droppedOverSize = s.droppedForBytes;
  out.droppedOverAge = s.droppedForAge + requestCache_->droppedOverAge();
  out.droppedByRule = s.droppedByRule;
  out.repeated = s.repeated;
  out.dataDirectoryHeldElsewhere = outbox_->dataDirectoryHeldElsewhere();
  return out;
}

}  // namespace quorvel
