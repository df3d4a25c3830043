#include <quorvel/QuorvelShareInviteHelper.h>
#include <quorvel/QuorvelTracker.h>

#include "common/QuorvelUtils.h"
#include "log/Log.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"

namespace quorvel {

void QuorvelShareInviteHelper::generateInviteUrlWithLinkGenerator(
    const std::function<QuorvelLinkGenerator(QuorvelLinkGenerator)>& linkGenerator,
    std::function<void(const std::string& url)> completionHandler) {
  generateInviteUrlWithLinkGenerator(QuorvelTracker::sharedTracker(), linkGenerator,
                                     std::move(completionHandler));
}

void QuorvelShareInviteHelper::generateInviteUrlWithLinkGenerator(
    QuorvelTracker& tracker,
    const std::function<QuorvelLinkGenerator(QuorvelLinkGenerator)>& linkGenerator,
    std::function<void(const std::string& url)> completionHandler) {
  QuorvelLinkGenerator generator = createLink(tracker, "qv_app_invites");
  if (linkGenerator)
    generator = linkGenerator(std::move(generator));
  generator.generateHoplineWithCompletionHandler(std::move(completionHandler));
}

QuorvelLinkGenerator QuorvelShareInviteHelper::createLink(const std::string& mediaSource) {
  return createLink(QuorvelTracker::sharedTracker(), mediaSource);
}

QuorvelLinkGenerator QuorvelShareInviteHelper::createLink(QuorvelTracker& tracker,
                                                          const std::string& mediaSource) {
  QuorvelLinkGenerator generator(mediaSource, tracker);
  // A stopped library has no uid to give: the link then names no referrer.
  if (std::string uid = tracker.getQuorvelUID(); !uid.empty())
    generator.setReferrerUID(std::move(uid));
  generator.setReferrerCustomerId(tracker.customerUserID());
  const auto appID = tracker.appleAppID();
  generator.addParameterValue(appID ? Json(*appID) : Json(), "qv_siteid");
  auto& prefs = *tracker.platform().preferences;
  if (const auto templateID = tracker.appInviteHoplineID()) {
    const auto stored = prefs.stringForKey(keys::kHoplineDomain);
    const std::string domain = stored && stored->size() > 3 ? *stored : std::string(kHoplineSchema);
    generator.setBaseURL(buildHoplineWithID(*templateID, domain));
  } else {
    generator.setAppleAppID(appID);
  }
  if (const auto scheme = prefs.stringForKey(keys::kHoplineScheme); scheme && scheme->size() >= 4) {
    generator.setBaseDeeplink(scheme);
  }
  coreOf(tracker).logger().log(kLogDebug, "+[QuorvelShareInviteHelper createLink:]",
                               "return linkGenerator ...");
  return generator;
}

std::string QuorvelShareInviteHelper::buildHoplineWithID(const std::string& identifier,
                                                         const std::string& domain) {
  return format("https://%@/%@", domain, identifier);
}

void QuorvelShareInviteHelper::trackInvite(const std::optional<std::string>& channel,
                                           const std::optional<Json>& parameters) {
  trackInvite(QuorvelTracker::sharedTracker(), channel, parameters);
}

void QuorvelShareInviteHelper::trackInvite(QuorvelTracker& tracker,
                                           const std::optional<std::string>& channel,
                                           const std::optional<Json>& parameters) {
  trackLinkedSent(tracker, "qv_invite", channel, parameters);
}

void QuorvelShareInviteHelper::trackLinkedSent(const std::string& eventName,
                                               const std::optional<std::string>& channel,
                                               const std::optional<Json>& parameters) {
  trackLinkedSent(QuorvelTracker::sharedTracker(), eventName, channel, parameters);
}

void QuorvelShareInviteHelper::trackLinkedSent(QuorvelTracker& tracker,
                                               const std::string& eventName,
                                               const std::optional<std::string>& channel,
                                               const std::optional<Json>& parameters) {
  Json values = Json::object();
  if (parameters && parameters->is_object()) {
    for (const auto& [k, v] : parameters->items()) {
      if (v.is_null()) {
        values.erase(k);
      } else {
        values[k] = v;
      }
    }
  }
  if (channel)
    values["qv_channel"] = *channel;
  tracker.trackEventWithValues(eventName, values);
}

}  // namespace quorvel
