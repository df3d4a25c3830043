// Flush, the exit flush and the group commit of preference writes.
#include "tracker/TrackerCore.h"

#include "cache/Outbox.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "util/PreferenceKeys.h"

#include <algorithm>
#include <array>
#include <thread>
#include <unordered_set>

namespace quorvel {
namespace {
constexpr std::chrono::milliseconds kGroupCommitDelay{100};
// How often a waiting flush looks for queued work that only it can run.
constexpr std::chrono::milliseconds kQueueTurn{2};
}  // namespace

// Reports are built on the main and background queues, their answers arrive on the shared
// session's queue, delegates are called on these. When the thread that waits here is the one
// that turns one of them (a flush or exit() from a delegate callback, a host's loop that
// stopped turning at exit), nothing there would run and the wait would last its whole bound:
// so the wait runs that work itself, a few milliseconds at a time. The report of the callback
// that waits cannot settle before the callback returns, so it is not waited for.
void TrackerCore::turnOwnQueues() {
  const std::array<std::shared_ptr<platform::DispatchQueue>, 3> queues = {
      platform_->dispatcher->mainQueue(), mBackgroundQueue_,
      platform_->urlSessions ? platform_->urlSessions->sharedSession()->delegateQueue() : nullptr};
  for (const auto& queue : queues) {
    if (queue)
      queue->runDueItemsHere();
  }
  if (outbox_->dataDirectoryHeldElsewhere())
    ledger_->settleKeptForHolder();
}

bool TrackerCore::waitSettledTurningOwnQueues(std::uint64_t mark,
                                              std::chrono::milliseconds timeout) {
  const auto ownReport = ReportLedger::current();
  const std::uint64_t except = ownReport ? ownReport->id() : 0;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    turnOwnQueues();
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const auto slice = std::clamp(left, std::chrono::milliseconds::zero(), kQueueTurn);
    if (ledger_->waitSettled(mark, slice, except))
      return true;
    if (left <= kQueueTurn)
      return false;
  }
}

bool TrackerCore::flush(std::chrono::milliseconds timeout) noexcept {
  try {
    acceptIntake();
    const bool settled = waitSettledTurningOwnQueues(ledger_->newest(), timeout);
    persistPreferencesNow();
    return settled;
  } catch (const std::exception& e) {
    log_->log(kLogError, "-[QuorvelTracker flush:]", "flush failed: %@", e.what());
    return false;
  }
}

TrackerCore::FlushOutcome TrackerCore::flushReports(std::chrono::milliseconds timeout) noexcept {
  try {
    using SteadyClock = std::chrono::steady_clock;
    const auto deadline = SteadyClock::now() + timeout;
    const auto left = [deadline] {
      return std::max(std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()),
                      std::chrono::milliseconds::zero());
    };
    acceptIntake();
    const std::uint64_t mark = ledger_->newest();
    bool unread = false;
    auto judged = outbox_->unsettledSlots(unread, deadline);
    if (!judged)
      return FlushOutcome::timedOut;
    for (const auto& ticket : ledger_->unsettled()) {
      if (ticket->id() <= mark && ticket->outbox())
        judged->push_back(ticket->outbox());
    }
    log_->log(kLogDebug, "-[QuorvelTracker flush:]", "Quorvel: flush waits for %lu reports",
              static_cast<unsigned long>(judged->size()));
    const bool settled = waitSettledTurningOwnQueues(mark, left());
    persistPreferencesNow();
    if (!settled)
      return FlushOutcome::timedOut;
    // What an earlier run left goes by the replay, which no ticket of this flush follows: it
    // is waited for until each report was answered or failed once here. The records still
    // unread get their slots once read.
    // Read in order, each record once; a report once tried stays tried, so the look goes on
    // from the first one not tried yet.
    std::unordered_set<const OutboxSlot*> known;
    for (const auto& slot : *judged)
      known.insert(slot.get());
    std::int64_t readUpTo = 0;
    std::size_t firstUntried = 0;
    for (;;) {
      if (unread) {
        auto read = outbox_->earlierRunSlots(unread, readUpTo, deadline);
        if (!read)
          return FlushOutcome::timedOut;
        for (auto& slot : *read) {
          if (known.insert(slot.get()).second)
            judged->push_back(std::move(slot));
        }
      }
      while (firstUntried < judged->size() &&
             ((*judged)[firstUntried]->settled() || (*judged)[firstUntried]->failedHere()))
        ++firstUntried;
      // Stopped, nothing is sent: what is untried stays so, and the flush says it failed.
      if ((!unread && firstUntried == judged->size()) || consent_->stopped())
        break;
      if (left() == std::chrono::milliseconds::zero())
        return FlushOutcome::timedOut;
      turnOwnQueues();
      std::this_thread::sleep_for(std::min(left(), kQueueTurn));
    }
    const bool delivered = std::ranges::none_of(*judged, [](const OutboxSlotPtr& slot) {
      return !slot->settled() || slot->settledUntaken();
    });
    return delivered ? FlushOutcome::delivered : FlushOutcome::notDelivered;
  } catch (const std::exception& e) {
    log_->log(kLogError, "-[QuorvelTracker flush:]", "flush failed: %@", e.what());
    return FlushOutcome::timedOut;
  }
}

std::chrono::milliseconds TrackerCore::exitFlushTimeout() const {
  return std::chrono::milliseconds(exitFlushMs_.load());
}

void TrackerCore::setExitFlushTimeout(std::chrono::milliseconds timeout) {
  exitFlushMs_ = timeout.count();
}

bool TrackerCore::flushAtExit() noexcept {
  static constexpr const char* kMethod = "-[QuorvelTracker flushAtExit]";
  const auto timeout = exitFlushTimeout();
  if (timeout <= std::chrono::milliseconds::zero())
    return true;
  try {
    outbox_->tryFreedLock();
    const bool settled = flush(timeout);
    outbox_->exitFlushOver();
    // Every unanswered report is in the outbox already; what the last few milliseconds
    // accepted is written now, and the next start sends it all.
    outbox_->drainAndSync();
    const auto stats = outbox_->stats();
    if (stats.waiting == 0) {
      if (settled)
        return true;
      // Nothing waits in the outbox; what is still under way (a request no outbox keeps,
      // such as an uninstall registration) ends with the process.
      log_->log(kLogWarning, kMethod,
                "exit: requests still under way after %lld ms end with the process; no report "
                "waits in the outbox",
                static_cast<long long>(timeout.count()));
      return false;
    }
    // Settled is not answered: a report whose send failed waits too. What has its record on
    // disk waits for the next start; what has none (a full disk, no store, another process
    // holding the data directory) ends with the process, and the log says how many of each.
    const auto waiting = static_cast<unsigned long long>(stats.waiting);
    const auto lost = std::min<unsigned long long>(outbox_->unansweredNotOnDisk(), waiting);
    const auto ms = static_cast<long long>(timeout.count());
    const char* why = outbox_->dataDirectoryHeldElsewhere()
                          ? "another process holds the data directory and they could not be "
                            "kept for it"
                          : "the outbox could not write them to the disk";
    if (lost == 0) {
      log_->log(kLogWarning, kMethod,
                "exit: %llu reports still unanswered after %lld ms wait in the outbox for the "
                "next start",
                waiting, ms);
    } else if (lost == waiting) {
      log_->log(kLogError, kMethod,
                "exit: %llu reports still unanswered after %lld ms are lost: %@", waiting, ms,
                std::string(why));
    } else {
      log_->log(kLogError, kMethod,
                "exit: %llu reports still unanswered after %lld ms: %llu wait in the outbox for "
                "the next start, %llu are lost: %@",
                waiting, ms, waiting - lost, lost, std::string(why));
    }
    return false;
  } catch (const std::exception& e) {
    log_->log(kLogError, kMethod, "exit flush failed: %@", e.what());
    return false;
  }
}

void TrackerCore::keepAtExit() noexcept {
  if (inertAfterFork())
    return;  // the parent's
  try {
    acceptIntake();
    outbox_->tryFreedLock();
    outbox_->exitFlushOver();
    outbox_->drainAndSync();
  } catch (...) {
    // What the intake held ends with the process, as it would without this.
  }
}

bool TrackerCore::isStopped() const {
  return consent_->stopped();
}

void TrackerCore::setStopped(bool stopped) {
  static constexpr const char* kMethod = "-[QuorvelTracker setStopped:]";
  auto& fs = *platform_->fileSystem;
  auto& prefs = *switchPreferences_;
  if (stopped) {
    // Before the lock: work inside the gate (a host's callback among it) may itself wait for
    // the lock, and the settling waits for that work.
    consent_->stopAndSettle();
    httpClient_->cancelRequestsUnderWay();
  }
  // What this process does for another one's forgetting never falls inside a switch here.
  const std::lock_guard lock(optInMutex_);
  if (stopped) {
    stopAgainIfOptedInMeanwhile();
    fs.createDirectory(fs.libraryDirectory());
    if (!fs.writeFileAtomically(stopMarkerPath(*platform_), Bytes{kStoppedMark}))
      log_->log(kLogError, kMethod, "Quorvel could not tell other processes of the stop");
    prefs.setBool(keys::kStopped, true);
  } else {
    // Forgotten by another process while stopped here, unseen so far: what this process still
    // holds of the install goes first, or it would go out under the consent given now.
    forgetIfForgottenElsewhereLocked();
    forgottenHere_ = false;
    prefs.removeObjectForKey(keys::kStopped);
  }
  // On the caller's thread: a consent given must hold even if the app is killed right after.
  // Stored before the marker goes: a process that finds it gone finds the consent stored.
  if (!prefs.synchronize())
    log_->log(kLogError, kMethod, "Quorvel could not store the stop switch; it holds until exit");
  if (!stopped) {
    fs.removeFile(stopMarkerPath(*platform_));
    consent_->run();
  }
  log_->log(kLogInfo, kMethod,
            stopped ? "Quorvel stopped: nothing is collected, stored or sent until "
                      "setStopped(false), in this start and the next ones"
                    : "Quorvel runs again");
  if (!stopped) {
    outbox_->sendsResumed();  // what waited during the stop goes now
    scheduleOutboxResume();   // and what an earlier run left, with or without a call
  }
}

void TrackerCore::stopAgainIfOptedInMeanwhile() {
  if (consent_->knownStopped())
    return;
  consent_->stopAndSettle();
  httpClient_->cancelRequestsUnderWay();
}

void TrackerCore::persistPreferencesSoon() {
  if (preferencesWriteScheduled_.exchange(true))
    return;  // a write is on its way and will take this change along
  auto self = self_;
  mBackgroundQueue_->asyncAfter(kGroupCommitDelay, [self] {
    // Nothing to do when a write made in between took the changes along.
    if (const auto tracker = self->pin(); tracker && tracker->preferencesWriteScheduled_)
      tracker->persistPreferencesNow();
  });
}

void TrackerCore::persistPreferencesNow() {
  preferencesWriteScheduled_ = false;
  if (isStopped())
    return;  // the stop wrote what came before it; nothing after it is kept
  platform_->preferences->synchronize();
}

}  // namespace quorvel
