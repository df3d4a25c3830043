// In-app events: the public calls only schedule; the dispatch builds and sends.
#include <quorvel/QuorvelTracker.h>

#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "util/QuorvelUtils.h"

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
// waits until the network has room for it. One closure, so that the host's thread pays for
// a single allocation besides the report's ticket.
template <typename Build>
void scheduleEventBuild(const std::shared_ptr<ReportLedger>& ledger,
                        const std::shared_ptr<platform::DispatchQueue>& queue,
                        std::chrono::nanoseconds delay, Build build) {
  queue->asyncAfter(delay,
                    [ticket = ledger->open(), ledger, queue, build = std::move(build)]() mutable {
                      const ReportLedger::Scope scope(ticket);
                      ledger->buildWhenThereIsRoom(queue, inCurrentWorkContext(std::move(build)));
                    });
}

}  // namespace

void QuorvelTracker::trackEvent(const std::string& eventName,
                                const std::optional<std::string>& value) {
  if (looksLikeRevenue(value)) {
    qvLog(kLogDebug, "-[QuorvelTracker trackEvent:withValue:]",
          "Quorvel: numeric value '%@' for event '%@' will be categorized as a revenue event.",
          *value, eventName);
  }
  auto self = self_;
  scheduleEventBuild(ledger_, platform_->dispatcher->mainQueue(), std::chrono::milliseconds(1),
                     [self, eventName, value] {
                       if (const auto tracker = self->pin())
                         tracker->callServerWithEventName(eventName, value, true, false);
                     });
}

void QuorvelTracker::trackEventWithValues(const std::string& eventName,
                                          const std::optional<Json>& values) {
  auto self = self_;
  scheduleEventBuild(
      ledger_, mBackgroundQueue_, std::chrono::milliseconds(100), [self, eventName, values] {
        const auto tracker = self->pin();
        if (!tracker)
          return;
        std::string text = "null";
        if (values && !values->is_null()) {
          const auto json = QuorvelUtils::isValidJSONObject(*values)
                                ? QuorvelUtils::getJsonStringFromDictionary(*values)
                                : std::nullopt;
          if (!json) {
            // Values that cannot be written are lost; the event still goes, without a value.
            tracker->callServerWithEventName(eventName, std::nullopt, std::nullopt, true, false);
            return;
          }
          text = *json;
        }
        tracker->callServerWithEventName(eventName, replaceCommas(legacyPercentEscape(text)),
                                         std::nullopt, true, false);
      });
}

void QuorvelTracker::trackLocation(double longitude, double latitude) {
  trackEventWithValues("qv_location_coordinates",
                       Json{{"qv_long", longitude}, {"qv_lat", latitude}});
}

}  // namespace quorvel
