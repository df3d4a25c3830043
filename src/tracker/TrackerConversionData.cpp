// The install's conversion data: fetched once, stored, served from the stored copy.
#include "tracker/TrackerCore.h"

#include "common/QuorvelUtils.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "tracker/TrackerNames.h"
#include "util/BoundedJson.h"
#include "util/PercentEscape.h"
#include "util/PreferenceKeys.h"

namespace quorvel {

const std::int64_t k60Days = 5184000;
const std::int64_t kNumberOfConversionDataRequestsTreshhold = 5;

namespace {

constexpr const char* kGet = "-[QuorvelTracker getConversionData]";
constexpr const char* kAnswer = "-[QuorvelTracker getConversionData]_block_invoke";

bool listensForFailures(const std::shared_ptr<QuorvelTrackerDelegate>& d) {
  return d && d->onConversionDataRequestFailure;
}

}  // namespace

void TrackerCore::loadConversionDataWithDelegate(std::weak_ptr<QuorvelTrackerDelegate> delegate) {
  setDelegate(std::move(delegate));
  getConversionData();
}

void TrackerCore::getConversionData() {
  const auto d = delegate();
  if (!d || !d->onConversionDataReceived || isStopped())
    return;
  // Nothing of this call reaches the delegate or the disk after a stop or a forgetting.
  const auto generation = consent_->generation();
  // Called by a host, the delivery to its delegate is a report of its own.
  const ReportLedger::Scope report(ledger_->currentOrOpen());
  const Platform& p = *platform_;
  auto& prefs = *p.preferences;
  auto cached = prefs.objectForKey(keys::kConversionData);
  const double expiration = prefs.doubleForKey(keys::kConversionDataCacheExpiration);
  const double now = platform::secondsSince1970(p.clock->now());
  if (expiration != 0 && now - expiration > static_cast<double>(k60Days)) {
    // Expired: asked again once; the stored copy stays for the case that this fails.
    prefs.setDouble(keys::kConversionDataCacheExpiration, 0);
    cached.reset();
  }
  if (cached) {
    std::weak_ptr<QuorvelTrackerDelegate> weak = d;
    p.dispatcher->mainQueue()->asyncAfter(
        std::chrono::milliseconds(1),
        carryReport(ReportLedger::current(), [weak, log = log_, data = *cached, consent = consent_,
                                              generation] {
          if (!consent->holds(generation))
            return;
          log->log(kLogDebug, "-[QuorvelTracker getConversionData]_block_invoke",
                   "conversion data description:\n %@", data);
          if (const auto current = weak.lock(); current && current->onConversionDataReceived) {
            current->onConversionDataReceived(data);
          }
        }));
    return;
  }
  try {
    const auto start = p.clock->now();
    if (prefs.integerForKey(keys::kConversionDataRequestRetries) >=
        kNumberOfConversionDataRequestsTreshhold)
      return;
    const std::string uid = getQuorvelUID();
    if (!consent_->holds(generation))
      return;
    const std::string url = format("https://sdk.%@/install_data/v3/id%@?devkey=%@&device_id=%@",
                                   host(), appleAppID(), quorvelDevKey(), uid);
    log_->log(kLogDebug, kGet, "calling URL (conversion data): %@", url);
    platform::URLRequest request;
    request.url = url;
    auto self = self_;
    // A stop cancels it: none leaves once the stop returned, and no delegate hears of it.
    httpClient_->startUnlessStopped(
        *p.urlSessions->sharedSession(), std::move(request),
        [self, start, generation, ticket = ReportLedger::current()](
            const auto& body, const auto& response, const auto& error) {
          const ReportLedger::Scope report(ticket);
          const auto tracker = self->pin();
          if (tracker && tracker->consent_->holds(generation))
            tracker->handleConversionDataAnswer(body, response, error, start, generation);
        },
        nullptr, generation);
  } catch (const std::exception&) {
    if (const auto current = delegate(); listensForFailures(current)) {
      current->onConversionDataRequestFailure(Error{kErrorDomain, 0, "Quorvel server data error."});
    }
  }
}

void TrackerCore::handleConversionDataAnswer(const std::optional<Bytes>& body,
                                             const std::optional<platform::URLResponse>& response,
                                             const std::optional<Error>& error,
                                             platform::TimePoint start,
                                             platform::ConsentGate::Generation generation) {
  const Platform& p = *platform_;
  auto& prefs = *p.preferences;
  const auto d = delegate();
  if (error) {
    if (listensForFailures(d)) {
      std::weak_ptr<QuorvelTrackerDelegate> weak = d;
      p.dispatcher->mainQueue()->asyncAfter(
          std::chrono::milliseconds(1),
          carryReport(ReportLedger::current(), [weak, e = *error, consent = consent_, generation] {
            if (const auto current = weak.lock();
                consent->holds(generation) && current && current->onConversionDataRequestFailure) {
              current->onConversionDataRequestFailure(e);
            }
          }));
    }
    return;
  }
  if (!d || !d->onConversionDataReceived || !response)
    return;
  log_->log(kLogDebug, kAnswer, "Conversion data response code: %ld", response->statusCode);
  const long status = response->statusCode;
  if (status != 200) {
    // Counted only for delegates that listen for failures; 5xx answers are never counted.
    if (listensForFailures(d)) {
      if (status >= 400 && status <= 499) {
        prefs.setInteger(keys::kConversionDataRequestRetries,
                         prefs.integerForKey(keys::kConversionDataRequestRetries) + 1);
        prefs.synchronize();
      }
      d->onConversionDataRequestFailure(
          Error{kErrorDomain, status,
                "Quorvel error response from server. Check your Quorvel key and Apple app ID."});
    }
    return;
  }
  prefs.setDouble(keys::kGetConversionDataTiming,
                  std::chrono::duration<double>(p.clock->now() - start).count());
  prefs.removeObjectForKey(keys::kConversionDataRequestRetries);
  prefs.synchronize();

  const std::string text = body ? std::string(body->begin(), body->end()) : std::string();
  Json parsed = parseBoundedJson(text);
  std::optional<Error> failure;
  if (parsed.is_discarded()) {
    failure = jsonParserError();
  } else if (!parsed.is_object()) {
    failure = Error{kErrorDomain, 0, "Quorvel bad JSON response."};
  } else {
    QuorvelUtils::recursivelyRemoveNulls(parsed);
    {
      // A stop cannot fall between the check and the store; the delegate is called outside,
      // as it may stop or forget itself.
      const auto held = consent_->hold();
      if (!consent_->holds(generation))
        return;
      if (const auto it = parsed.find("iscache"); it != parsed.end()) {
        const bool fresh =
            (it->is_boolean() && !it->get<bool>()) || (it->is_number() && it->get<double>() == 0);
        parsed.erase("iscache");
        if (fresh)
          prefs.setDouble(keys::kConversionDataCacheExpiration,
                          platform::secondsSince1970(p.clock->now()));
      }
      prefs.setObject(keys::kConversionData, parsed);
      prefs.synchronize();
    }
    log_->log(kLogDebug, kAnswer, "Caching conversion data ...");
    log_->log(kLogDebug, kAnswer, "conversion data description:\n %@", parsed);
    if (consent_->holds(generation))
      d->onConversionDataReceived(parsed);
    return;
  }
  if (listensForFailures(d)) {
    log_->log(kLogWarning, kAnswer, "%lu", text.size());
    d->onConversionDataRequestFailure(
        text.empty() ? Error{kErrorDomain, 1, "Quorvel Empty response from server."} : *failure);
  }
}

}  // namespace quorvel
