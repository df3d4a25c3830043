// Flush, the exit flush and the group commit of preference writes.
#include "tracker/TrackerCore.h"

#include "cache/QuorvelRequestCache.h"
#include "log/Log.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"

namespace quorvel {
namespace {
constexpr std::chrono::milliseconds kGroupCommitDelay{100};
}  // namespace

bool TrackerCore::flush(std::chrono::milliseconds timeout) noexcept {
  try {
    const bool settled = ledger_->waitSettled(ledger_->newest(), timeout);
    persistPreferencesNow();
    return settled;
  } catch (const std::exception& e) {
    log_->log(kLogError, "-[QuorvelTracker flush:]", "flush failed: %@", e.what());
    return false;
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
    if (flush(timeout))
      return true;
    // What is still on the wire goes to the offline cache for the next start; reports whose
    // request was not built yet cannot be kept.
    int kept = 0;
    int lost = 0;
    for (const auto& ticket : ledger_->unsettled()) {
      const auto outcome = ticket->keepAtExit(
          [this](const QuorvelRequestCacheData& r) { return requestCache_->cacheRequest(r); });
      kept += outcome == ReportLedger::Ticket::AtExit::kept ? 1 : 0;
      lost += outcome == ReportLedger::Ticket::AtExit::notBuilt ? 1 : 0;
    }
    persistPreferencesNow();
    log_->log(kLogWarning, kMethod,
              "exit: %d requests still unanswered after %lld ms were kept for the next start, "
              "%d reports were not built yet",
              kept, static_cast<long long>(timeout.count()), lost);
    return false;
  } catch (const std::exception& e) {
    log_->log(kLogError, kMethod, "exit flush failed: %@", e.what());
    return false;
  }
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
  platform_->preferences->synchronize();
}

}  // namespace quorvel
