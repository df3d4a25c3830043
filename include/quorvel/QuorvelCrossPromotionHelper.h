// Cross-promotion of other applications: clicks as events, impressions as calls.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <quorvel/Json.h>
#include <quorvel/QuorvelLinkGenerator.h>
#include <quorvel/platform/URLSession.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

// Each helper works with the tracker it is given; the forms without one use
// QuorvelTracker::sharedTracker(). The store link and the impression go out on a new session
// with the default configuration, not on the library's shared one.
class QuorvelCrossPromotionHelper {
 public:
  QuorvelCrossPromotionHelper() = delete;

  static QuorvelLinkGenerator createLinkGenerator(QuorvelTracker& tracker, const std::string& appID,
                                                  const std::optional<std::string>& campaign,
                                                  const std::optional<Json>& parameters,
                                                  const std::string& baseURL);
  static void trackAndOpenStore(
      QuorvelTracker& tracker, const std::string& appID, const std::optional<std::string>& campaign,
      const std::optional<Json>& paramters,
      const std::function<void(std::shared_ptr<platform::URLSession> session,
                               const std::string& url)>& openStore);
  static void trackCrossPromotionEvent(QuorvelTracker& tracker,
                                       const std::optional<std::string>& campaign,
                                       const std::optional<Json>& paramters);
  static void trackCrossPromoteImpression(QuorvelTracker& tracker, const std::string& appID,
                                          const std::optional<std::string>& campaign);

  static QuorvelLinkGenerator createLinkGenerator(const std::string& appID,
                                                  const std::optional<std::string>& campaign,
                                                  const std::optional<Json>& parameters,
                                                  const std::string& baseURL);
  // Records the click, then hands the host a session and the promotion link to open.
  static void trackAndOpenStore(
      const std::string& appID, const std::optional<std::string>& campaign,
      const std::optional<Json>& paramters,
      const std::function<void(std::shared_ptr<platform::URLSession> session,
                               const std::string& url)>& openStore);
  static void trackCrossPromotionEvent(const std::optional<std::string>& campaign,
                                       const std::optional<Json>& paramters);
  // Tells the service that a promotion was shown; failures are only logged.
  static void trackCrossPromoteImpression(const std::string& appID,
                                          const std::optional<std::string>& campaign);
};

}  // namespace quorvel

#pragma GCC visibility pop
