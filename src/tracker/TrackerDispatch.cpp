// Every tracking request goes through callServerWithEventName: checked, built, encrypted,
// sent to its endpoint.
#include <quorvel/Version.h>
#include "tracker/TrackerCore.h"

#include "cache/QuorvelRequestCacheData.h"
#include "common/QuorvelAES128Crypto.h"
#include "common/QuorvelUtils.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "tracker/TrackerNames.h"
#include "util/PreferenceKeys.h"
#include "util/QuorvelDictionary.h"
#include "util/WorkContext.h"

#include <span>

namespace quorvel {
namespace {
constexpr const char* kCallServerMethod =
    "-[QuorvelTracker callServerWithEventName:value:withDictionary:isEvent:isIAd:]";
}  // namespace

void TrackerCore::callServerWithEventName(const std::string& name) {
  callServerWithEventName(name, std::nullopt, false, false);
}

void TrackerCore::callServerWithEventName(const std::string& name,
                                          const std::optional<std::string>& value,
                                          bool isInAppEvent, bool isIAd) {
  callServerWithEventName(name, value, std::nullopt, isInAppEvent, isIAd);
}

void TrackerCore::callServerWithEventName(const std::string& name,
                                          const std::optional<std::string>& value,
                                          const std::optional<Json>& /*dictionary*/, bool isEvent,
                                          bool isIAd) {
  // A stop or a forgetting waits for a build under way: what it writes (identifier, counters)
  // is on disk before the forgetting removes it, never after.
  const auto held = consent_->hold();
  if (isStopped()) {
    // Accepted before the stop: it waits in the outbox, unbuilt, for a start that runs.
    log_->log(kLogDebug, kCallServerMethod, "Quorvel is stopped: %@ waits in the outbox", name);
    return;
  }
  if (const auto ticket = ReportLedger::current();
      ticket && ticket->outbox() && ticket->outbox()->settled()) {
    return;  // handed over (to the process that holds the data directory) or dropped meanwhile
  }
  if (!outbox_->numberingIsSafe()) {
    // Its counters are given below: not before this process knows the last ones given. It
    // took no place in the build throttle on its way here, so it queues for one again.
    outbox_->afterNumberingIsSafe(
        mBackgroundQueue_, inCurrentWorkContext([self = self_, name, value, isEvent, isIAd] {
          const auto tracker = self->pin();
          if (!tracker)
            return;
          tracker->ledger_->buildWhenThereIsRoom(
              tracker->mBackgroundQueue_, inCurrentWorkContext([self, name, value, isEvent, isIAd] {
                if (const auto pinned = self->pin())
                  pinned->callServerWithEventName(name, value, std::nullopt, isEvent, isIAd);
              }));
        }));
    return;
  }
  const Platform& p = *platform_;
  auto& prefs = *p.preferences;
  log_->log(kLogDebug, kCallServerMethod, "(%@): entered callServerWithEventName. ",
            kQuorvelSDKVersion);
  const auto devKey = quorvelDevKey();
  // Masked: a log travels (bug reports, remote debugging) further than the key should.
  log_->log(kLogDebug, kCallServerMethod, "dev key: %@",
            devKey && !devKey->empty() ? maskedSecret(*devKey) : std::string("missing!!!"));
  if (!devKey) {
    log_->log(kLogError, kCallServerMethod, "Quorvel dev key is missing");
    dropCurrentReport();
    return;
  }
  validateAppID();

  const auto installTimestamp = prefs.objectForKey(keys::kInstallTimestamp);
  log_->log(kLogDebug, kCallServerMethod, "First time = %d %@ %@", installTimestamp ? 0 : 1,
            installTimestamp, keys::kInstallTimestamp);
  const bool isLaunch = name == kLaunchEventName;
  if (isLaunch)
    write(lastLaunchTime_, p.clock->now());
  std::optional<Json> receipt;
  if (isLaunch && !installTimestamp) {
    log_->log(kLogDebug, kCallServerMethod, "Get install receipt");
    receipt = QuorvelUtils::getStoreReceipt(p, *log_);
  }
  if (!installTimestamp) {
    prefs.setString(keys::kInstallTimestamp,
                    format("%f", platform::secondsSince1970(p.clock->now())));
  }

  QuorvelDictionary parameters = getEventParameters(isLaunch);
  parameters.setParameter(Json(name), "event");
  parameters.setParameter(Json(value.value_or(std::string())), "eventvalue");
  if (receipt) {
    log_->log(kLogDebug, kCallServerMethod, "install Receipt: %@",
              QuorvelUtils::getJsonStringFromDictionary(*receipt, *log_));
    const auto data = receipt->find("data");
    if (data != receipt->end() && !data->is_string()) {
      log_->log(kLogDebug, kCallServerMethod, "Found install Receipt Data");
      parameters.setParameter(QuorvelUtils::getJsonStringFromDictionary(*receipt, *log_),
                              "installReceiptData");
    }
  } else {
    log_->log(kLogDebug, kCallServerMethod, "Install Receipt Data has no data");
  }

  const char* prefix = isEvent ? "events" : (isIAd ? "attr" : "t");
  std::string url = format("https://%@.%@/api/v%@/ios%@?app_id=%@&buildnumber=%@", prefix, host(),
                           kQuorvelAPIVersion, "event", appleAppID(), kQuorvelSDKVersion);
  Bytes body = encryptData(parameters);
  // The clear text is written a second time only to be shown, or to have its fault logged.
  if (log_->debugWanted() || body == Bytes{0xFF}) {
    QuorvelUtils::logRequestContent(
        isLaunch ? kRequestLaunch : kRequestEvent, url,
        QuorvelUtils::getJsonStringFromDictionary(parameters.dict(), *log_).value_or(std::string()),
        *log_);
  }
  QuorvelRequestCacheData record(std::move(url), std::move(body), kQuorvelSDKVersion);
  record.setCarriesLaunchCounter(isLaunch);
  auto self = self_;
  std::function<void()> answered = [self, isLaunch] {
    const auto tracker = self->pin();
    if (!tracker || !isLaunch)
      return;
    const auto d = tracker->delegate();
    if (d && d->onConversionDataReceived) {
      tracker->log_->log(
          kLogDebug,
          "-[QuorvelTracker "
          "callServerWithEventName:value:withDictionary:isEvent:isIAd:]_block_invoke",
          "Quorvel: loading attribution data");
      tracker->getConversionData();
    }
  };
  // An event's counters wait for the group commit (the outbox keeps them with its request).
  if (isLaunch)
    sendLaunchOnceDurable(std::move(record), std::move(answered));
  else
    httpClient_->sendRequestEventToServer(std::move(record), false, appleAppID(), isDebug(),
                                          std::move(answered));
}

// A launch's counters and identifiers are on disk before it leaves, so that a crash right
// after can never count the same launch again. The outbox keeps the counters with the request;
// without an outbox on disk the preferences are their only copy, and while those cannot be
// written either (a full disk) the launch waits and the write is tried again each second. A
// disk that stays full for seconds does not keep the launch from the service: it goes from
// memory then (a process that ends before its counters are saved counts it again at the next
// start, which loses nothing, where waiting on would lose the launch at exit).
void TrackerCore::sendLaunchOnceDurable(QuorvelRequestCacheData record,
                                        std::function<void()> answered, int attempt) {
  constexpr int kLaunchWaits = 5;
  preferencesWriteScheduled_ = false;
  // Stopped while it was built: it writes nothing, and the client holds it back.
  const bool stopped = isStopped();
  const bool written = stopped || platform_->preferences->synchronize();
  if (!written && attempt >= kLaunchWaits) {
    log_->log(kLogWarning, "-[QuorvelTracker callServerWithEventName:]",
              "Quorvel: the launch's counters still cannot be written: the launch goes from "
              "memory");
  }
  if (written || outbox_->durable() || attempt >= kLaunchWaits) {
    launchWaitLogged_ = false;
    httpClient_->sendRequestEventToServer(std::move(record), false, appleAppID(), isDebug(),
                                          std::move(answered));
    return;
  }
  if (!launchWaitLogged_.exchange(true)) {
    log_->log(kLogError, "-[QuorvelTracker callServerWithEventName:]",
              "Quorvel: the launch's counters cannot be written (no outbox, and the preferences "
              "cannot be saved): the launch waits until they are");
  }
  constexpr std::chrono::seconds kLaunchWriteRetry{1};
  mBackgroundQueue_->asyncAfter(
      kLaunchWriteRetry, [self = self_, record = std::move(record), answered = std::move(answered),
                          ticket = ReportLedger::current(), attempt]() mutable {
        const ReportLedger::Scope scope(ticket);
        if (const auto tracker = self->pin()) {
          const auto held = tracker->consent_->hold();
          tracker->sendLaunchOnceDurable(std::move(record), std::move(answered), attempt + 1);
        }
      });
}

void TrackerCore::validateAppID() const {
  static constexpr const char* kValidate = "-[QuorvelTracker validateAppID]";
  const auto appID = appleAppID();
  if (!appID) {
    log_->log(kLogError, kValidate, "Quorvel Error: appleAppID is missing!");
    return;
  }
  // No function-local regex: this runs during the exit flush, after such statics are gone.
  const bool digitsOnly =
      !appID->empty() && appID->find_first_not_of("0123456789") == std::string::npos;
  if (!digitsOnly) {
    log_->log(kLogError, kValidate, "Quorvel Error: appleAppID should be a number!");
    log_->log(kLogError, kValidate, "appleAppID: '%@'", *appID);
  }
}

Bytes TrackerCore::encryptData(const QuorvelDictionary& parameters) const {
  // The clear text is written into a buffer its thread keeps, so that a burst of reports
  // writes into room it already has; one far larger than a report is given back.
  static constexpr std::size_t kKeptTextCapacity = 64 * 1024;
  thread_local std::string text;
  text.clear();
  const bool written = QuorvelUtils::appendJsonData(parameters.dict(), text, *log_);
  const auto cipher = crypto();
  if (written && cipher) {
    auto sealed =
        cipher->encrypt(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
    if (text.capacity() > kKeptTextCapacity)
      std::string().swap(text);
    return sealed ? std::move(*sealed) : Bytes{};
  }
  log_->log(kLogWarning, "-[QuorvelTracker encryptData:]", "Cannot encrypt `nil`");
  return Bytes{0xFF};
}

}  // namespace quorvel
