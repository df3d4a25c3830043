// Launches, sessions and the move to the background.
#include "tracker/TrackerCore.h"

#include "common/QuorvelUtils.h"
#include "device/QVSDKiAdClient.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "tracker/TrackerNames.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {
constexpr std::chrono::milliseconds kLaunchDelay{250};
}  // namespace

void TrackerCore::trackAppLaunch() {
  static constexpr const char* kMethod = "-[QuorvelTracker trackAppLaunch]";
  log_->log(kLogInfo, kMethod, "Launch");
  auto& proxy = remoteDebugging_;
  if (proxy.proxyEnabledFromServer())
    sendRemoteDebuggingData();
  iAdClient_->printLinkDependances();

  auto& prefs = *platform_->preferences;
  const bool stored = prefs.objectForKey(keys::kSearchAdsAttribution).has_value();
  log_->trace(kMethod, "iAD: has iSearchAdsDict stored?  %@", stored ? "Yes" : "No");
  log_->trace(kMethod, "iAD: disableIAdTracking ON?      %@", disableIAdTracking() ? "Yes" : "No");
  if (!stored && !disableIAdTracking()) {
    auto self = self_;
    iAdClient_->requestAttributionDetails(
        [self, generation = consent_->generation()](const Json& details) {
          static constexpr const char* kBlock = "-[QuorvelTracker trackAppLaunch]_block_invoke";
          const auto tracker = self->pin();
          if (!tracker)
            return;
          {
            // Details that come after a stop or a forgetting are not the install's to keep.
            const auto held = tracker->consent_->hold();
            if (!tracker->consent_->holds(generation))
              return;
            auto& store = *tracker->platform_->preferences;
            store.setObject(keys::kSearchAdsAttribution, details);
            store.synchronize();
          }
          tracker->log_->log(kLogDebug, kBlock, "iAD. Attribution Details: %@", details);
          tracker->log_->trace(kBlock, "iAD. permitAggregateiAdData: %@",
                               tracker->permitAggregateiAdData() ? "YES" : "NO");
          if (tracker->permitAggregateiAdData()) {
            tracker->callServerWithEventName(kLaunchEventName, std::nullopt, false, true);
            tracker->setPermitAggregateiAdData(false);
          }
        });
  }
  // Nothing of the launch is built on the caller's thread.
  auto self = self_;
  auto ticket =
      acceptReport({OutboxIntent::Kind::launch, kLaunchEventName, std::nullopt, std::nullopt});
  mBackgroundQueue_->asyncAfter(kLaunchDelay, carryReport(std::move(ticket), [self] {
                                  if (const auto tracker = self->pin())
                                    tracker->sendLaunchToServer();
                                }));
}

void TrackerCore::sendLaunchToServer() {
  static constexpr const char* kMethod = "-[QuorvelTracker sendLaunchToServer]";
  if (const auto last = lastLaunchTime()) {
    const double elapsed = std::chrono::duration<double>(platform_->clock->now() - *last).count();
    log_->log(kLogDebug, kMethod, "Time from last launch %f", elapsed);
    if (!(elapsed > static_cast<double>(minTimeBetweenSessions()))) {
      log_->log(kLogDebug, kMethod, "Skip launch");
      dropCurrentReport();
      return;
    }
    log_->log(kLogDebug, kMethod, "Call launch request ...");
  } else {
    log_->log(kLogDebug, kMethod, "Call launch request 1st time");
  }
  callServerWithEventName(kLaunchEventName);
}

void TrackerCore::handleEnteredBackground() {
  if (isStopped())
    return;
  if (!platform_->device->capabilities().backgroundTasks)
    return;
  const ReportLedger::Scope report(ledger_->currentOrOpen());
  incrementRealLaunchCounter();
  // The app may be suspended or killed from here on: what is pending is written now.
  persistPreferencesNow();
  acceptIntake();
  outbox_->syncSoon();
  backgroundstatCall();
  auto& proxy = remoteDebugging_;
  if (proxy.proxyEnabledFromServer()) {
    proxy.stopRemoteDebugging();
    sendRemoteDebuggingData();
  }
}

void TrackerCore::backgroundstatCall() {
  static constexpr const char* kMethod = "-[QuorvelTracker backgroundstatCall]";
  const auto last = lastLaunchTime();
  const double elapsed =
      last ? std::chrono::duration<double>(platform_->clock->now() - *last).count() : 0.0;
  auto& prefs = *platform_->preferences;
  const double timing = prefs.doubleForKey(keys::kGetConversionDataTiming);
  const auto storedOriginal = prefs.stringForKey(keys::kOriginalUserId);
  const std::string original = storedOriginal ? *storedOriginal : getQuorvelUID();
  log_->log(kLogDebug, kMethod, "entered background %f", elapsed);
  try {
    // A missing app id or developer key abandons the request, as inserting nil would.
    const auto appID = appleAppID();
    const auto devKey = quorvelDevKey();
    if (!appID)
      throw std::invalid_argument(
          "*** -[__NSDictionaryM setObject:forKey:]: object cannot be nil (key: app_id)");
    if (!devKey)
      throw std::invalid_argument(
          "*** -[__NSDictionaryM setObject:forKey:]: object cannot be nil (key: devkey)");
    Json body = Json::object();
    body["app_id"] = *appID;
    body["devkey"] = *devKey;
    body["uid"] = getQuorvelUID();
    body["time_in_app"] = elapsed;
    body["statType"] = "user_closed_app";
    body["launch_counter"] = getCounter(false);
    body["platform"] = "iOS";
    body["gcd_conversion_data_timing"] = timing;
    body["advertiserId"] = advertiserId();
    body["originalQuorvelId"] = original;
    if (deviceTrackingDisabled())
      body["deviceTrackingDisabled"] = "true";
    const std::string text =
        QuorvelUtils::getJsonStringFromDictionary(body, *log_).value_or(std::string());
    const std::string url = format("https://stats.%@/stats?app_id=%@", host(), *appID);
    log_->log(kLogDebug, kMethod, "calling URL (move to background): %@", url);
    QuorvelUtils::logRequestContent(kRequestStats, url, text, *log_);
    httpClient_->sendRequestWithConfiguration(url, text);
  } catch (const std::exception& e) {
    log_->log(kLogDebug, kMethod, "could not track move to background: %@", e.what());
  }
}

}  // namespace quorvel
