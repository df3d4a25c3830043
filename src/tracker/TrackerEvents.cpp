// In-app events: the public calls only schedule; the dispatch builds and sends.
#include "tracker/TrackerCore.h"

#include "common/QuorvelUtils.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "util/HostInput.h"

namespace quorvel {
namespace {

bool looksLikeRevenue(const std::optional<std::string>& value) {
  return value && !value->empty() && value->find_first_not_of("0123456789-.") == std::string::npos;
}

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

void TrackerCore::trackEvent(const std::string& hostEventName,
                             const std::optional<std::string>& hostValue) {
  const std::string eventName = hostText(hostEventName);
  const auto value = hostText(hostValue);
  if (looksLikeRevenue(value)) {
    log_->log(kLogDebug, "-[QuorvelTracker trackEvent:withValue:]",
              "Quorvel: numeric value '%@' for event '%@' will be categorized as a revenue event.",
              *value, eventName);
  }
  auto ticket = acceptReport({OutboxIntent::Kind::event, eventName, value, std::nullopt});
  scheduleEventBuild(self_, std::move(ticket), *platform_->dispatcher->mainQueue(), true,
                     std::chrono::milliseconds(1), [eventName, value](TrackerCore& tracker) {
                       tracker.callServerWithEventName(eventName, value, true, false);
                     });
}

void TrackerCore::trackEventWithValues(const std::string& hostEventName,
                                       const std::optional<Json>& hostValues) {
  const std::string eventName = hostText(hostEventName);
  const auto values = hostJson(hostValues);
  auto ticket =
      acceptReport({OutboxIntent::Kind::eventWithValues, eventName, std::nullopt, values});
  scheduleEventBuild(self_, std::move(ticket), *mBackgroundQueue_, false,
                     std::chrono::milliseconds(100), [eventName, values](TrackerCore& tracker) {
                       tracker.buildEventWithValues(eventName, values);
                     });
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
