#include <quorvel/QuorvelTracker.h>

#include <quorvel/Logger.h>
#include <quorvel/Version.h>

#include "cache/QuorvelRequestCache.h"
#include "common/QuorvelAES128Crypto.h"
#include "common/QuorvelUtils.h"
#include "device/QVSDKiAdClient.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "util/HostInput.h"
#include "util/NoDestructor.h"

namespace quorvel {
namespace {

constexpr const char* kSerialQueueLabel = "com.quorvel.serial";

std::optional<std::string> stringEntry(const Json& dictionary, const char* key) {
  if (!dictionary.is_object())
    return std::nullopt;
  const auto it = dictionary.find(key);
  if (it == dictionary.end() || !it->is_string())
    return std::nullopt;
  return it->get<std::string>();
}

}  // namespace

QuorvelTracker& QuorvelTracker::sharedTracker() {
  static QuorvelTracker& shared = []() -> QuorvelTracker& {
    // Its request cache is its own and replays through it.
    static NoDestructor<QuorvelTracker> tracker(currentPlatform());
    // The shared session first, so that its own exit handlers are registered before this
    // one and therefore run after it: the exit flush still has a working network.
    if (const auto& sessions = tracker.get().platform_->urlSessions)
      sessions->sharedSession();
    std::atexit([] { sharedTracker().flushAtExit(); });
    return tracker.get();
  }();
  return shared;
}

QuorvelTracker::QuorvelTracker(std::shared_ptr<const Platform> platform,
                               std::shared_ptr<QuorvelRequestCache> cache)
    : platform_(std::move(platform)),
      ledger_(std::make_shared<ReportLedger>()),
      self_(std::make_shared<TrackerLifetime>(this)) {
  if (!cache) {
    cache = std::make_shared<QuorvelRequestCache>(platform_,
                                                  [self = self_](const QuorvelRequestCacheData& r) {
                                                    if (const auto tracker = self->pin())
                                                      tracker->sendRequestFromCache(r);
                                                  });
  }
  requestCache_ = std::move(cache);
  host_ = kQuorvelDefaultHost;
  QVSetSessionStartDate(platform_->clock->now());
  minTimeBetweenSessions_ = 5;
  customerUserID_.reset();
  customData_.reset();
  shouldCollectDeviceName_ = true;
  platfromDevName_ = QuorvelUtils::develomentPlatformName(*platform_->classRegistry);
  advertiserId_ = "";
  httpClient_ = QuorvelHTTPClient::create(platform_, requestCache_, ledger_);
  iAdClient_ = std::make_shared<const QVSDKiAdClient>(platform_);
  mBackgroundQueue_ = platform_->dispatcher->makeSerialQueue(kSerialQueueLabel);
  // Written through the system log itself, so that it shows even with debugging off.
  platform_->systemLog->write(format("Quorvel SDK version %@ started build (%@)",
                                     kQuorvelSDKVersion, kQuorvelSDKBuildNumber));
  if (platform_->device->isMultitaskingSupported()) {
    subscribeToLifecycleNotifications();
  }
}

QuorvelTracker::~QuorvelTracker() {
  // First, so that no lifecycle handler is running or can start while the tracker goes away.
  unsubscribeFromLifecycleNotifications();
  self_->end();
  platform_->preferences->synchronize();
}

void QuorvelTracker::subscribeToLifecycleNotifications() {
  using platform::NotificationSubscription;
  std::vector<NotificationSubscription> subscriptions;
  const auto& center = platform_->notificationCenter;
  subscriptions.emplace_back(center, platform::kApplicationDidEnterBackgroundNotification,
                             [this](const platform::Notification&) { handleEnteredBackground(); });
  subscriptions.emplace_back(center, platform::kApplicationDidFinishLaunchingNotification,
                             [this](const platform::Notification& n) { handleDidFinishLaunch(n); });
  subscriptions.emplace_back(
      center, platform::kApplicationWillTerminateNotification,
      [this](const platform::Notification& n) { removeNotificationObserver(n); });
  std::lock_guard lock(subscriptionsMutex_);
  lifecycleSubscriptions_ = std::move(subscriptions);
}

void QuorvelTracker::unsubscribeFromLifecycleNotifications() {
  std::vector<platform::NotificationSubscription> ending;
  {
    std::lock_guard lock(subscriptionsMutex_);
    ending.swap(lifecycleSubscriptions_);
  }
  ending.clear();
}

// --- Configuration ------------------------------------------------------------------------

std::optional<std::string> QuorvelTracker::quorvelDevKey() const {
  return read(quorvelDevKey_);
}

void QuorvelTracker::setQuorvelDevKey(std::optional<std::string> key) {
  key = hostText(key);
  write(quorvelDevKey_, key);
  // Key derivation is deferred to each encryption; making the cipher only draws the IV.
  auto cipher = std::make_shared<const QuorvelAES128Crypto>(std::move(key), platform_->random);
  write(crypto_, std::move(cipher));
}

std::shared_ptr<const QuorvelAES128Crypto> QuorvelTracker::crypto() const {
  return read(crypto_);
}

std::optional<std::string> QuorvelTracker::appleAppID() const {
  return read(appleAppID_);
}
void QuorvelTracker::setAppleAppID(std::optional<std::string> appID) {
  write(appleAppID_, hostText(appID));
}

std::optional<std::string> QuorvelTracker::customerUserID() const {
  return read(customerUserID_);
}

void QuorvelTracker::setCustomerUserID(std::optional<std::string> customerUserID) {
  qvLog(kLogDebug, "-[QuorvelTracker setCustomerUserID:]", "SetCustomerId = %@", customerUserID);
  write(customerUserID_, hostText(customerUserID));
}

std::optional<Json> QuorvelTracker::customData() const {
  std::lock_guard lock(monitor_);
  return customData_;
}

void QuorvelTracker::setAdditionalData(std::optional<Json> customData) {
  std::lock_guard lock(monitor_);
  if (!customData || customData->is_null())
    return;
  qvLog(kLogDebug, "-[QuorvelTracker setAdditionalData:]", "setCustomData = %@", *customData);
  customData_ = hostJson(customData);
}

void QuorvelTracker::setUserEmails(const std::vector<std::string>& emails, int cryptType) {
  setUserEmails(Json(emails), cryptType);
}

void QuorvelTracker::setUserEmails(const Json& emails, int cryptType) {
  std::vector<Json> list;
  if (emails.is_array()) {
    for (const auto& entry : emails)
      list.push_back(hostJson(entry));
  }
  std::lock_guard lock(monitor_);
  userEmails_ =
      emails.is_array() ? std::optional<std::vector<Json>>(std::move(list)) : std::nullopt;
  emailCryptType_ = cryptType;
}

std::optional<std::string> QuorvelTracker::currencyCode() const {
  return read(currencyCode_);
}
void QuorvelTracker::setCurrencyCode(std::optional<std::string> code) {
  write(currencyCode_, hostText(code));
}

bool QuorvelTracker::isDebug() const {
  return isDebug_;
}

void QuorvelTracker::setIsDebug(bool isDebug) {
  isDebug_ = isDebug;
  QVSetShowDebugLogs(isDebug);
  if (isDebug) {
    qvLog(kLogDebug, "-[QuorvelTracker setIsDebug:]",
          "* * * Quorvel is set to debug mode. This should only be used in development "
          "enviornment!!!! * * *");
  }
}

void QuorvelTracker::setIsTrace(bool isTrace) {
  QVSetShowDebugLogsTrace(isTrace);
}

bool QuorvelTracker::shouldCollectDeviceName() const {
  return shouldCollectDeviceName_;
}

void QuorvelTracker::setShouldCollectDeviceName(bool flag) {
  qvLog(kLogDebug, "-[QuorvelTracker setShouldCollectDeviceName:]",
        "setShouldCollectDeviceName is called with flag: %@", flag ? "YES" : "NO");
  shouldCollectDeviceName_ = flag;
}

bool QuorvelTracker::disableAppleAdSupportTracking() const {
  return disableAppleAdSupportTracking_;
}
void QuorvelTracker::setDisableAppleAdSupportTracking(bool flag) {
  disableAppleAdSupportTracking_ = flag;
}
bool QuorvelTracker::deviceTrackingDisabled() const {
  return deviceTrackingDisabled_;
}
void QuorvelTracker::setDeviceTrackingDisabled(bool flag) {
  deviceTrackingDisabled_ = flag;
}
bool QuorvelTracker::disableIAdTracking() const {
  return disableIAdTracking_;
}
void QuorvelTracker::setDisableIAdTracking(bool flag) {
  disableIAdTracking_ = flag;
}

bool QuorvelTracker::useReceiptValidationSandbox() const {
  return useReceiptValidationSandbox_;
}

void QuorvelTracker::setUseReceiptValidationSandbox(bool flag) {
  useReceiptValidationSandbox_ = flag;
  // Written whatever the value, also when the sandbox is switched off.
  qvLog(kLogDebug, "-[QuorvelTracker setUseReceiptValidationSandbox:]",
        "* * * Quorvel is set to verify in app purchases on Apple sandbox. This should only be "
        "used in development enviornment!!!! * * *");
}

bool QuorvelTracker::useUninstallSandbox() const {
  return useUninstallSandbox_;
}
void QuorvelTracker::setUseUninstallSandbox(bool flag) {
  useUninstallSandbox_ = flag;
}

std::optional<std::string> QuorvelTracker::appInviteHoplineID() const {
  return read(appInviteHoplineID_);
}
void QuorvelTracker::setAppInviteHopline(std::optional<std::string> hoplineID) {
  write(appInviteHoplineID_, hostText(hoplineID));
}

std::string QuorvelTracker::advertiserId() const {
  return read(advertiserId_);
}
void QuorvelTracker::setAdvertiserId(std::string advertiserId) {
  write(advertiserId_, hostText(advertiserId));
}

std::string QuorvelTracker::host() const {
  return read(host_);
}

void QuorvelTracker::setHost(std::optional<std::string> host) {
  write(host_, host ? hostText(*host) : std::string(kQuorvelDefaultHost));
}

std::uint64_t QuorvelTracker::minTimeBetweenSessions() const {
  return minTimeBetweenSessions_;
}
void QuorvelTracker::setMinTimeBetweenSessions(std::uint64_t seconds) {
  minTimeBetweenSessions_ = seconds;
}

std::optional<std::chrono::system_clock::time_point> QuorvelTracker::lastLaunchTime() const {
  return read(lastLaunchTime_);
}

std::shared_ptr<QuorvelTrackerDelegate> QuorvelTracker::delegate() const {
  std::lock_guard lock(fieldsMutex_);
  return delegate_.lock();
}

void QuorvelTracker::setDelegate(std::weak_ptr<QuorvelTrackerDelegate> delegate) {
  write(delegate_, std::move(delegate));
}

std::optional<std::string> QuorvelTracker::deeplink() const {
  return read(deeplink_);
}
std::optional<std::string> QuorvelTracker::sourceApplication() const {
  return read(sourceApplication_);
}

// --- Information ----------------------------------------------------------------------------

std::string QuorvelTracker::getSDKVersion() const {
  return format("version: %@ (build %@)", kQuorvelSDKVersion, kQuorvelSDKBuildNumber);
}

Json QuorvelTracker::getValueFromBundle(const std::string& key) const {
  auto value = platform_->bundle->objectForInfoDictionaryKey(key);
  return value ? *value : Json("");
}

std::string QuorvelTracker::platfromDevName() const {
  return read(platfromDevName_);
}

// --- Lifecycle ------------------------------------------------------------------------------

void QuorvelTracker::removeNotificationObserver(const platform::Notification& /*notification*/) {
  unsubscribeFromLifecycleNotifications();
}

void QuorvelTracker::handleDidFinishLaunch(const platform::Notification& notification) {
  static constexpr const char* kMethod = "-[QuorvelTracker handleDidFinishLaunch:]";
  if (notification.userInfo.is_null())
    return;
  auto source = stringEntry(notification.userInfo, platform::kLaunchOptionsSourceApplicationKey);
  write(sourceApplication_, source);
  if (source) {
    qvLog(kLogDebug, kMethod, "didFinishLaunchingWithOptions. Source application: %@", *source);
  }
  auto url = stringEntry(notification.userInfo, platform::kLaunchOptionsURLKey);
  write(deeplink_, url);
  if (url) {
    qvLog(kLogDebug, kMethod, "didFinishLaunchingWithOptions. Deeplink URL: %@", *url);
  }
}

void QuorvelTracker::sendRequestFromCache(const QuorvelRequestCacheData& request) {
  httpClient_->sendRequestEventToServer(request, true, appleAppID(), isDebug(), nullptr);
}

void QuorvelTracker::remoteDebuggingCallWithData(const std::string& data) {
  try {
    const std::string url =
        format("https://monitorsdk.%@/remote-debug?app_id=%@&device_tracking_disabled=%@", host(),
               appleAppID(), deviceTrackingDisabled() ? "true" : "false");
    httpClient_->sendRequestWithConfiguration(url, data);
  } catch (const std::exception& e) {
    qvLog(kLogError, "-[QuorvelTracker remoteDebuggingCallWithData:]",
          "could not send remoteDebuggingCallWithData(%@): %@", data, e.what());
  }
}

void QuorvelTracker::sendRemoteDebuggingData() {
  QuorvelProxyManager::sharedManager().sendRemoteDebuggingData(
      *platform_,
      [this] {
        RemoteDebuggingIdentity who;
        who.quorvelUID = getQuorvelUID();
        who.advertiserId = advertiserId();
        who.sdkVersion = getSDKVersion();
        who.devKey = quorvelDevKey();
        who.appleAppID = appleAppID();
        return who;
      },
      [this](const std::string& document) { remoteDebuggingCallWithData(document); });
}

void QuorvelTracker::onConversionDataReceived(const Json& installData) {
  qvLog(kLogDebug, "-[QuorvelTracker onConversionDataReceived:]", "Caching attribution. %@",
        installData);
}

void QuorvelTracker::onConversionDataRequestFailure(const Error& error) {
  qvLog(kLogWarning, "-[QuorvelTracker onConversionDataRequestFailure:]",
        "did not load install data: %@", error);
}

}  // namespace quorvel
