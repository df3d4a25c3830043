#include <quorvel/QuorvelLinkGenerator.h>
#include <quorvel/QuorvelTracker.h>

#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "platform/Url.h"
#include "tracker/TrackerCore.h"
#include "util/PercentEscape.h"

namespace quorvel {
namespace {

constexpr const char* kGenerateLink = "-[QuorvelLinkGenerator generateLink]";

void logSetter(const Log& log, const char* method, const char* line, const std::string& value) {
  log.log(kLogDebug, method, line, value);
}

}  // namespace

std::string quorvelDefaultLinkOrigin(const std::string& host) {
  return format("https://app.%@", host);
}
std::string quorvelImpressionOrigin(const std::string& host) {
  return format("https://impressions.%@", host);
}

QuorvelLinkGenerator::QuorvelLinkGenerator(std::optional<std::string> meidaSource)
    : QuorvelLinkGenerator(std::move(meidaSource), QuorvelTracker::sharedTracker()) {}

QuorvelLinkGenerator::QuorvelLinkGenerator(std::optional<std::string> meidaSource,
                                           QuorvelTracker& tracker)
    : tracker_(&tracker) {
  coreOf(tracker).logger().log(kLogDebug, "-[QuorvelLinkGenerator initWithMeidaSource:]",
                               "initWithMeidaSource is called");
  mediaSource_ = std::move(meidaSource);
}

#define QV_SETTER(NAME, FIELD, LINE)                                                           \
  void QuorvelLinkGenerator::NAME(const std::optional<std::string>& value) {                   \
    if (!value)                                                                                \
      return;                                                                                  \
    logSetter(coreOf(*tracker_).logger(), "-[QuorvelLinkGenerator " #NAME ":]", LINE, *value); \
    FIELD = *value;                                                                            \
  }
QV_SETTER(setChannel, channel_, "channel:           %@")
QV_SETTER(setReferrerCustomerId, referrerCustomerId_, "referrerCustomerId: %@")
QV_SETTER(setReferrerUID, referrerUID_, "referrerUID:        %@")
QV_SETTER(setReferrerName, referrerName_, "referrerName:       %@")
QV_SETTER(setReferrerImageURL, referrerImageURL_, "referrerImageURL:   %@")
QV_SETTER(setCampaign, campaign_, "campaign:           %@")
QV_SETTER(setBaseURL, baseURL_, "baseURL:            %@")
QV_SETTER(setAppleAppID, appleAppID_, "appleAppID:         %@")
QV_SETTER(setDeeplinkPath, deeplinkPath_, "deeplinkPath:       %@")
QV_SETTER(setBaseDeeplink, baseDeeplink_, "baseDeeplink:       %@")
#undef QV_SETTER

void QuorvelLinkGenerator::addParameterValue(const Json& value, const std::string& forKey) {
  if (value.is_null()) {
    parameters_.erase(forKey);
  } else {
    parameters_[forKey] = value;
  }
}

void QuorvelLinkGenerator::addParameters(const Json& parameters) {
  if (!parameters.is_object())
    return;
  for (const auto& [key, value] : parameters.items())
    addParameterValue(value, key);
}

std::string QuorvelLinkGenerator::encodeValue(const std::string& value) {
  return percentEscape(value, isAllowedInUrlHost);
}

Json QuorvelLinkGenerator::namedPairs() const {
  Json pairs = Json::object();
  const auto put = [&](const char* key, const std::optional<std::string>& v) {
    if (v)
      pairs[key] = *v;
  };
  put("pid", mediaSource_);
  put("qv_channel", channel_);
  put("c", campaign_);
  put("referrer_qv_id", referrerUID_);
  put("qv_referrer_customer_id", referrerCustomerId_);
  put("qv_referrer_name", referrerName_);
  put("qv_referrer_image_url", referrerImageURL_);
  if (baseDeeplink_)
    pairs["qv_dp"] = *baseDeeplink_ + deeplinkPath_.value_or(std::string());
  return pairs;
}

std::string QuorvelLinkGenerator::generateLink() const {
  Json pairs = namedPairs();
  for (const auto& [k, v] : parameters_.items())
    pairs[k] = v;
  const std::string base = baseURL_ ? *baseURL_ : quorvelDefaultLinkOrigin(tracker_->host());
  std::optional<std::string> query;
  bool first = true;
  for (const auto& [key, value] : pairs.items()) {
    // The separator goes in before the value is checked, so "?&" and "&&" can occur.
    query = query.value_or(std::string()) + (first ? "?" : "&");
    first = false;
    if (value.is_string()) {
      *query += format("%@=%@", percentEscape(key, isUnreservedInUrl),
                       percentEscape(value.get<std::string>(), isUnreservedInUrl));
    } else {
      coreOf(*tracker_).logger().log(kLogDebug, kGenerateLink,
                                     "Key `%@` ignored. Unsupported format.", key);
    }
  }
  const std::string link =
      appleAppID_ ? format("%@/id%@%@", base, *appleAppID_, query) : format("%@%@", base, query);
  coreOf(*tracker_).logger().log(kLogDebug, kGenerateLink, "Generated Link: %@", link);
  return link;
}

void QuorvelLinkGenerator::generateHoplineWithTTL(
    std::int64_t ttl, std::function<void(const std::string& url)> completionHandler) const {
  const auto deliver = [&completionHandler](const std::string& url) {
    if (completionHandler)
      completionHandler(url);
  };
  TrackerCore& tracker = coreOf(*tracker_);
  const auto client = tracker.httpClient();
  const auto templateID = tracker.appInviteHoplineID();
  const auto devKey = tracker.quorvelDevKey();
  if (!devKey || !client || !templateID) {
    deliver(generateLink());
    return;
  }
  const std::string url =
      format("https://hopline.%@/shortlink-sdk/v1/%@", tracker.host(), *templateID);
  Json parameters = Json::object();
  if (appleAppID_)
    parameters["id"] = *appleAppID_;
  const Json named = namedPairs();  // kept alive: items() only views its container
  for (const auto& [k, v] : named.items())
    parameters[k] = v;
  for (const auto& [k, v] : parameters_.items())
    parameters[k] = v;
  // The fallback is made now: the generator may be gone when the answer comes.
  const std::string longLink = generateLink();
  client->createHopline(url, ttl, *devKey, parameters,
                        [longLink, completionHandler](const std::optional<std::string>& link,
                                                      const std::optional<Error>& error) {
                          if (!completionHandler)
                            return;
                          if (error || !link) {
                            completionHandler(longLink);
                            return;
                          }
                          const auto parsed = Url::parse(*link);
                          const bool usable = parsed && parsed->scheme() && parsed->host() &&
                                              !parsed->host()->empty();
                          completionHandler(usable ? parsed->absoluteString() : longLink);
                        });
}

}  // namespace quorvel
