// In-app events once the host's call is in the intake (TrackerHostCalls.cpp): the intake's
// turns hand each call to the schedule of its build, which builds and sends.
#include "tracker/TrackerCore.h"

#include "common/QuorvelUtils.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "util/PercentEscape.h"

#include <algorithm>

namespace quorvel {
namespace {

std::string replaceCommas(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == ',') {
      out += "%2C";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

// Queues the build of an event's request as a report of its own; under a burst the build
// waits until the network has room for it. The host's thread pays for one closure and the
// report's ticket, and touches no reference count that the queue's thread also touches
// (besides the tracker's lifetime): under a burst such shared counters cost more than the
// rest of the call.
template <typename Build>
void scheduleEventBuild(const std::shared_ptr<TrackerLifetime>& self,
                        ReportLedger::TicketPtr ticket, platform::DispatchQueue& queue,
                        bool onMainQueue, std::chrono::nanoseconds delay, Build build) {
  queue.asyncAfter(
      delay, [ticket = std::move(ticket), self, onMainQueue, build = std::move(build)]() mutable {
        const auto tracker = self->pin();
        if (!tracker)
          return;
        const ReportLedger::Scope scope(ticket);
        const auto queue =
            onMainQueue ? tracker->platform().dispatcher->mainQueue() : tracker->backgroundQueue();
        tracker->reportLedger()->buildWhenThereIsRoom(
            queue, inCurrentWorkContext([self, build = std::move(build)] {
              if (const auto pinned = self->pin())
                build(*pinned);
            }));
      });
}

}  // namespace

// Taken on the outbox's own thread, which spends microseconds on a batch: the shared pool's
// threads may be busy building requests or syncing for tens of milliseconds, and a call must
// reach the disk within 10 ms of its return. A turn takes a bounded number of calls, so that
// the outbox writes a burst as it comes instead of holding all of it at once.
void TrackerCore::scheduleIntakeTurn(std::chrono::nanoseconds after) {
  auto turn = [self = self_] {
    if (const auto tracker = self->pin())
      tracker->intakeTurn();
  };
  if (after > std::chrono::nanoseconds::zero())
    outboxQueue_->asyncAfter(after, std::move(turn));
  else
    outboxQueue_->async(std::move(turn));
}

// Only turns run this, one at a time on the outbox's serial queue, and only they clear the
// watch: a turn either schedules the next one or ends the watch.
void TrackerCore::intakeTurn() {
  const auto now = platform_->clock->now();
  std::unique_lock lock(intakeConsumer_);
  const bool empty = intake_.empty();
  if (!empty) {
    intakeLastCall_ = now;
    intakeLookGap_ = kIntakePoll;
  }
  if (!empty && !acceptIntakeLocked(kIntakeTurn)) {
    lock.unlock();
    scheduleIntakeTurn();  // more than a turn's worth: the next turn takes the rest at once
    return;
  }
  // A clock set back ends the watch rather than stretching it by as much: the next call
  // starts it again.
  if (const auto since = now - intakeLastCall_;
      since >= platform::TimePoint::duration::zero() && since < kIntakeLinger) {
    const auto gap = intakeLookGap_;
    if (empty)
      intakeLookGap_ = std::min<std::chrono::nanoseconds>(gap * 2, kIntakePollMost);
    lock.unlock();
    scheduleIntakeTurn(gap);
    return;
  }
  intakeWatched_.store(false);
  // A call pushed before the watch ended but after the last look found it still set.
  if (intake_.empty() || intakeWatched_.exchange(true))
    return;
  lock.unlock();
  scheduleIntakeTurn();
}

void TrackerCore::acceptIntake() {
  const std::lock_guard lock(intakeConsumer_);
  acceptIntakeLocked();
}

// The host's call asked only whether the library is known stopped; the look for a stop made
// by another process is taken here. Calls that such a stop finds in the intake are dropped
// (some came before it, but nothing tells which); those that came before a stop made here
// are kept, as their record would have been had the turn come first.
bool TrackerCore::acceptIntakeLocked(std::size_t most) {
  if (intake_.empty())
    return true;
  const bool stoppedElsewhere = consent_->stopped() && consent_->stopSeenElsewhere();
  for (std::size_t n = 0; n < most; ++n) {
    auto call = intake_.pop();
    if (!call)
      return true;
    if (!stoppedElsewhere)
      scheduleIntake(*call);
  }
  return intake_.empty();
}

// An event is built a moment after its call (1 ms on the main queue; with values, 100 ms on
// the serial queue), counted from the call, not from its acceptance here.
void TrackerCore::scheduleIntake(const IntakeCall& call) {
  const bool withValues = call.kind() == OutboxIntent::Kind::eventWithValues;
  const std::chrono::nanoseconds delay =
      withValues ? std::chrono::milliseconds(100) : std::chrono::milliseconds(1);
  const auto wait =
      std::max(std::chrono::nanoseconds::zero(), call.at() + delay - platform_->clock->now());
  OutboxIntent intent = call.intent();
  auto ticket = acceptReport(intent, call.at());
  if (withValues) {
    scheduleEventBuild(self_, std::move(ticket), *mBackgroundQueue_, false, wait,
                       [name = std::move(intent.name), values = std::move(intent.values)](
                           TrackerCore& t) { t.buildEventWithValues(name, values); });
  } else {
    scheduleEventBuild(
        self_, std::move(ticket), *platform_->dispatcher->mainQueue(), true, wait,
        [name = std::move(intent.name), value = std::move(intent.value)](TrackerCore& t) {
          t.callServerWithEventName(name, value, true, false);
        });
  }
}

void TrackerCore::buildEventWithValues(const std::string& eventName,
                                       const std::optional<Json>& values) {
  std::string text = "null";
  if (values && !values->is_null()) {
    const auto json = QuorvelUtils::isValidJSONObject(*values)
                          ? QuorvelUtils::getJsonStringFromDictionary(*values, *log_)
                          : std::nullopt;
    if (!json) {
      // Values that cannot be written are lost; the event still goes, without a value.
      callServerWithEventName(eventName, std::nullopt, std::nullopt, true, false);
      return;
    }
    text = *json;
  }
  callServerWithEventName(eventName, replaceCommas(legacyPercentEscape(text)), std::nullopt, true,
                          false);
}

void TrackerCore::trackLocation(double longitude, double latitude) {
  trackEventWithValues("qv_location_coordinates",
                       Json{{"qv_long", longitude}, {"qv_lat", latitude}});
}

}  // namespace quorvel
