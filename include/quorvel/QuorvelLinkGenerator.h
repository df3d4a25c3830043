// QuorvelLinkGenerator: attribution links to share, long or short.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <quorvel/Json.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

class QuorvelTracker;

class QuorvelLinkGenerator {
 public:
  // A generator for links of `meidaSource`, reading the configuration of the shared tracker.
  explicit QuorvelLinkGenerator(std::optional<std::string> meidaSource);
  // The same on a given tracker (tests and embedders with their own tracker).
  QuorvelLinkGenerator(std::optional<std::string> meidaSource, QuorvelTracker& tracker);

  // Each ignores a missing value: a property cannot be cleared through these.
  void setChannel(const std::optional<std::string>& channel);
  void setReferrerCustomerId(const std::optional<std::string>& referrerCustomerId);
  void setReferrerUID(const std::optional<std::string>& referrerUID);
  void setReferrerName(const std::optional<std::string>& referrerName);
  void setReferrerImageURL(const std::optional<std::string>& referrerImageURL);
  void setCampaign(const std::optional<std::string>& campaign);
  void setBaseURL(const std::optional<std::string>& baseURL);
  void setAppleAppID(const std::optional<std::string>& appleAppID);
  void setDeeplinkPath(const std::optional<std::string>& deeplinkPath);
  void setBaseDeeplink(const std::optional<std::string>& baseDeeplink);
  void setMediaSource(std::optional<std::string> mediaSource) {
    mediaSource_ = std::move(mediaSource);
  }
  void setParameters(Json parameters) {
    parameters_ = parameters.is_object() ? std::move(parameters) : Json::object();
  }

  // A free parameter; a missing (null) value removes the key.
  void addParameterValue(const Json& value, const std::string& forKey);
  void addParameters(const Json& parameters);

  const std::optional<std::string>& getMediaSource() const { return mediaSource_; }
  const std::optional<std::string>& channel() const { return channel_; }
  const std::optional<std::string>& campaign() const { return campaign_; }
  const std::optional<std::string>& referrerUID() const { return referrerUID_; }
  const std::optional<std::string>& referrerCustomerId() const { return referrerCustomerId_; }
  const std::optional<std::string>& baseURL() const { return baseURL_; }
  const std::optional<std::string>& appleAppID() const { return appleAppID_; }
  const std::optional<std::string>& baseDeeplink() const { return baseDeeplink_; }
  const Json& parameters() const { return parameters_; }

  // Percent-encodes every character outside the URL host character set.
  static std::string encodeValue(const std::string& value);

  // The long link: the base, "/id<app id>" when an app id is set, and every attribute in
  // the query.
  std::string generateLink() const;
  // A short link from the link service, or the long link whenever that fails. The
  // completion always receives a URL, at once or later on the network callback queue.
  void generateHoplineWithTTL(std::int64_t ttl,
                              std::function<void(const std::string& url)> completionHandler) const;
  void generateHoplineWithCompletionHandler(
      std::function<void(const std::string& url)> completionHandler) const {
    generateHoplineWithTTL(-1, std::move(completionHandler));
  }

 private:
  Json namedPairs() const;
  QuorvelTracker* tracker_;  // not owned; the tracker outlives its generators
  std::optional<std::string> mediaSource_;
  std::optional<std::string> channel_;
  std::optional<std::string> campaign_;
  std::optional<std::string> referrerUID_;
  std::optional<std::string> referrerCustomerId_;
  std::optional<std::string> referrerName_;
  std::optional<std::string> referrerImageURL_;
  std::optional<std::string> baseURL_;
  std::optional<std::string> appleAppID_;
  std::optional<std::string> deeplinkPath_;
  std::optional<std::string> baseDeeplink_;
  Json parameters_ = Json::object();
};

// The service's link origin for a service domain: "https://app.<domain>".
std::string quorvelDefaultLinkOrigin(const std::string& host);
// The cross-promotion impression origin: "https://impressions.<domain>".
std::string quorvelImpressionOrigin(const std::string& host);

}  // namespace quorvel

#pragma GCC visibility pop
