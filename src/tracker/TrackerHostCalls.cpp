// The host's event calls, on the host's thread: the call is copied into the intake's ring and
// nothing else, unless the intake is not watched yet. This file is compiled for speed where the
// rest of the library is compiled for size (see src/CMakeLists.txt).
#include "tracker/TrackerCore.h"

#include "log/Log.h"
#include "util/HostInput.h"

namespace quorvel {
namespace {

bool looksLikeRevenue(const std::optional<std::string>& value) {
  return value && !value->empty() && value->find_first_not_of("0123456789-.") == std::string::npos;
}

}  // namespace

[[gnu::hot]] void TrackerCore::trackEvent(const std::string& hostEventName,
                                          const std::optional<std::string>& hostValue) {
  if (looksLikeRevenue(hostValue) && log_->debugWanted()) {
    log_->log(kLogDebug, "-[QuorvelTracker trackEvent:withValue:]",
              "Quorvel: numeric value '%@' for event '%@' will be categorized as a revenue event.",
              hostText(*hostValue), hostText(hostEventName));
  }
  takeIntake(IntakeCall(hostEventName, hostValue, callTime()));
}

void TrackerCore::trackEventWithValues(const std::string& hostEventName,
                                       const std::optional<Json>& hostValues) {
  takeIntake(IntakeCall(hostEventName, hostJson(hostValues), callTime()));
}

[[gnu::hot]] platform::TimePoint TrackerCore::callTime() const noexcept {
  return systemClock_ ? std::chrono::system_clock::now() : platform_->clock->now();
}

[[gnu::hot]] void TrackerCore::takeIntake(IntakeCall call) {
  intake_.push(std::move(call));
  // While the intake is watched, the push is all: no system call, no wait for the queue.
  if (intakeWatched_.load() || intakeWatched_.exchange(true))
    return;
  scheduleIntakeTurn();
}

}  // namespace quorvel
