#include <quorvel/QuorvelCrossPromotionHelper.h>
#include <quorvel/QuorvelTracker.h>

#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerCore.h"

namespace quorvel {

QuorvelLinkGenerator QuorvelCrossPromotionHelper::createLinkGenerator(
    const std::string& appID, const std::optional<std::string>& campaign,
    const std::optional<Json>& parameters, const std::string& baseURL) {
  return createLinkGenerator(QuorvelTracker::sharedTracker(), appID, campaign, parameters, baseURL);
}

QuorvelLinkGenerator QuorvelCrossPromotionHelper::createLinkGenerator(
    QuorvelTracker& tracker, const std::string& appID, const std::optional<std::string>& campaign,
    const std::optional<Json>& parameters, const std::string& baseURL) {
  QuorvelLinkGenerator generator("qv_cross_promotion", tracker);
  generator.setBaseURL(baseURL);
  generator.setAppleAppID(appID);
  const auto ownID = tracker.appleAppID();
  generator.addParameterValue(ownID ? Json(*ownID) : Json(), "qv_siteid");
  generator.setCampaign(campaign);
  if (parameters)
    generator.addParameters(*parameters);
  if (const std::string advertiser = tracker.advertiserId(); !advertiser.empty()) {
    generator.addParameterValue(Json(advertiser), "advertising_id");
  }
  return generator;
}

void QuorvelCrossPromotionHelper::trackAndOpenStore(
    const std::string& appID, const std::optional<std::string>& campaign,
    const std::optional<Json>& paramters,
    const std::function<void(std::shared_ptr<platform::URLSession> session,
                             const std::string& url)>& openStore) {
  trackAndOpenStore(QuorvelTracker::sharedTracker(), appID, campaign, paramters, openStore);
}

void QuorvelCrossPromotionHelper::trackAndOpenStore(
    QuorvelTracker& tracker, const std::string& appID, const std::optional<std::string>& campaign,
    const std::optional<Json>& paramters,
    const std::function<void(std::shared_ptr<platform::URLSession> session,
                             const std::string& url)>& openStore) {
  const QuorvelLinkGenerator generator = createLinkGenerator(
      tracker, appID, campaign, paramters, quorvelDefaultLinkOrigin(tracker.host()));
  // The click is on record before the host opens anything.
  trackCrossPromotionEvent(tracker, campaign, paramters);
  const std::string url = generator.generateLink();
  if (openStore)
    openStore(tracker.platform().urlSessions->defaultSession(), url);
}

void QuorvelCrossPromotionHelper::trackCrossPromotionEvent(
    const std::optional<std::string>& campaign, const std::optional<Json>& paramters) {
  trackCrossPromotionEvent(QuorvelTracker::sharedTracker(), campaign, paramters);
}

void QuorvelCrossPromotionHelper::trackCrossPromotionEvent(
    QuorvelTracker& tracker, const std::optional<std::string>& campaign,
    const std::optional<Json>& paramters) {
  Json values = Json::object();
  if (paramters && paramters->is_object()) {
    for (const auto& [k, v] : paramters->items()) {
      if (!v.is_null())
        values[k] = v;
    }
  }
  if (campaign) {
    values["qv_campaign"] = *campaign;
  } else {
    values.erase("qv_campaign");
  }
  tracker.trackEventWithValues("qv_cross_promotion_clicked", values);
}

void QuorvelCrossPromotionHelper::trackCrossPromoteImpression(
    const std::string& appID, const std::optional<std::string>& campaign) {
  trackCrossPromoteImpression(QuorvelTracker::sharedTracker(), appID, campaign);
}

void QuorvelCrossPromotionHelper::trackCrossPromoteImpression(
    QuorvelTracker& tracker, const std::string& appID, const std::optional<std::string>& campaign) {
  const QuorvelLinkGenerator generator = createLinkGenerator(
      tracker, appID, campaign, std::nullopt, quorvelImpressionOrigin(tracker.host()));
  platform::URLRequest request;
  request.url = generator.generateLink();
  const auto client = coreOf(tracker).httpClient();
  if (!client)
    return;
  // Not sent while the library is stopped: the impression carries the advertising id.
  client->startUnlessStopped(
      *tracker.platform().urlSessions->defaultSession(), std::move(request),
      [report = coreOf(tracker).reportLedger()->currentOrOpen(), log = coreOf(tracker).log()](
          const auto&, const auto&, const std::optional<Error>& error) {
        if (error) {
          log->log(kLogError,
                   "+[QuorvelCrossPromotionHelper "
                   "trackCrossPromoteImpression:campaign:]_block_invoke",
                   "Quorvel crossPromotionViewed Connection failed! Error - %@",
                   error->localizedDescription);
        }
      });
}

}  // namespace quorvel
