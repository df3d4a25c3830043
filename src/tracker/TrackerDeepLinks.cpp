// Openings through links and push payloads: stored here, used by the next launch payload.
#include "tracker/TrackerCore.h"

#include "log/Log.h"
#include "util/HostInput.h"

namespace quorvel {

std::string QuorvelUserActivity::description() const {
  return "<NSUserActivity activityType=" + activityType +
         " webpageURL=" + webpageURL.value_or("(null)") + ">";
}

void TrackerCore::handleOpenURL(const std::string& url,
                                const std::optional<std::string>& sourceApplication,
                                const std::optional<Json>& /*withAnnotation*/) {
  {
    // The first link of a launch wins.
    std::lock_guard lock(fieldsMutex_);
    if (!deeplink_)
      deeplink_ = hostText(url);
    if (!sourceApplication_)
      sourceApplication_ = hostText(sourceApplication);
  }
  log_->log(kLogDebug, "-[QuorvelTracker handleOpenURL:sourceApplication:withAnnotation:]",
            "HandleOpenUrl: %@", deeplink());
}

void TrackerCore::handleOpenURL(const std::string& url,
                                const std::optional<std::string>& sourceApplication) {
  handleOpenURL(url, sourceApplication, std::nullopt);
}

void TrackerCore::handleOpenUrl(const std::string& url,
                                const std::optional<QuorvelOpenURLOptions>& options) {
  log_->log(kLogDebug, "-[QuorvelTracker handleOpenUrl:options:]", "handleOpenUrl: %@", url);
  setDeeplink(hostText(url));
  if (options)
    setSourceApplication(hostText(options->sourceApplication));
}

bool TrackerCore::continueUserActivity(const QuorvelUserActivity& userActivity,
                                       const std::function<void(const Json&)>& restorationHandler) {
  log_->log(kLogDebug, "-[QuorvelTracker continueUserActivity:restorationHandler:]",
            "User Activity: %@, restoration Handler: %@", userActivity.description(),
            restorationHandler ? "<__NSMallocBlock__>" : "(null)");
  if (userActivity.activityType == kQuorvelUserActivityTypeBrowsingWeb && userActivity.webpageURL) {
    setDeeplink(hostText(userActivity.webpageURL));
  }
  return true;
}

void TrackerCore::didUpdateUserActivity(const QuorvelUserActivity& userActivity) {
  log_->log(kLogDebug, "-[QuorvelTracker didUpdateUserActivity:]", "didUpdateUserActivity = %@",
            userActivity.description());
}

void TrackerCore::handlePushNotification(const Json& pushPayload) {
  std::optional<Json> entry;
  if (pushPayload.is_object()) {
    if (const auto it = pushPayload.find("qv"); it != pushPayload.end() && !it->is_null())
      entry = hostJson(*it);
  }
  setPushPayload(entry);
  log_->log(kLogDebug, "-[QuorvelTracker handlePushNotification:]",
            "Push Notification received qv payload = %@", entry);
}

}  // namespace quorvel
