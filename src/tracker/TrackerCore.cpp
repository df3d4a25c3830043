#include "tracker/TrackerCore.h"

#include <quorvel/Logger.h>
#include <quorvel/Version.h>

#include <set>

#include "cache/QuorvelRequestCache.h"
#include "common/QuorvelAES128Crypto.h"
#include "common/QuorvelUtils.h"
#include "device/QVSDKiAdClient.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "platform/ConsentedStores.h"
#include "platform/IntakeQueue.h"
#include "platform/SystemClock.h"
#include "platform/posix/SqliteOutboxStore.h"
#include "tracker/InstallEpoch.h"
#include "tracker/TrackerLifetime.h"
#include "util/HostInput.h"
#include "util/NoDestructor.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

constexpr const char* kSerialQueueLabel = "com.quorvel.serial";
constexpr const char* kOutboxSyncQueueLabel = "com.quorvel.outbox.sync";

std::optional<std::string> stringEntry(const Json& dictionary, const char* key) {
  if (!dictionary.is_object())
    return std::nullopt;
  const auto it = dictionary.find(key);
  if (it == dictionary.end() || !it->is_string())
    return std::nullopt;
  return it->get<std::string>();
}

}  // namespace

std::shared_ptr<TrackerCore> TrackerCore::withOwnRemoteDebugging(
    const std::shared_ptr<const Platform>& platform, std::shared_ptr<LogSwitches> logSwitches) {
  auto own = std::make_shared<QuorvelProxyManager>(platform->clock);
  auto core = std::make_shared<TrackerCore>(platform, *own, nullptr, std::move(logSwitches));
  core->log_->ownMirror(own);
  core->ownRemoteDebugging_ = std::move(own);
  return core;
}

TrackerCore::TrackerCore(std::shared_ptr<const Platform> platform,
                         QuorvelProxyManager& remoteDebugging,
                         std::shared_ptr<QuorvelRequestCache> cache,
                         std::shared_ptr<LogSwitches> logSwitches)
    : platform_(std::move(platform)),
      remoteDebugging_(remoteDebugging),
      installEpoch_(std::make_shared<InstallEpoch>(
          platform_->fileSystem,
          platform_->fileSystem->libraryDirectory() + "/" + InstallEpoch::kName)),
      consent_(std::make_shared<platform::ConsentGate>(
          [prefs = platform_->preferences, fs = platform_->fileSystem,
           marker = stopMarkerPath(*platform_)] {
            return prefs->boolForKey(keys::kStopped) || fs->fileExists(marker);
          },
          // A renewed epoch stops too, for the moment it takes to let go of the old install.
          [fs = platform_->fileSystem, marker = stopMarkerPath(*platform_), epoch = installEpoch_] {
            const bool renewed = epoch->changedSinceLastLook();
            return fs->fileExists(marker) || renewed;
          },
          platform_->clock)),
      log_(std::make_shared<const Log>(
          logSwitches ? std::move(logSwitches) : std::make_shared<LogSwitches>(), platform_->clock,
          platform_->systemLog, &remoteDebugging_)),
      ledger_(std::make_shared<ReportLedger>()),
      systemClock_(platform::isSystemClock(*platform_->clock)),
      self_(std::make_shared<TrackerLifetime>(this)) {
  // The install this process starts with: a forgetting made elsewhere from now on is news.
  installEpoch_->changedSinceLastLook();
  // Before anything takes the platform's stores. The library's work writes through guards of
  // the host's consent, and each tracker has an outbox store of its own.
  switchPreferences_ = platform_->preferences;
  auto consented = std::make_shared<Platform>(*platform_);
  consented->preferences =
      std::make_shared<platform::ConsentedPreferences>(switchPreferences_, consent_);
  consented->secureStore =
      std::make_shared<platform::ConsentedSecureStore>(platform_->secureStore, consent_);
  consented->outbox = platform::SqliteOutboxStore::forOneTracker(platform_->outbox);
  platform_ = std::move(consented);
  if (!cache) {
    cache = std::make_shared<QuorvelRequestCache>(platform_, log_,
                                                  [self = self_](const QuorvelRequestCacheData& r) {
                                                    if (const auto tracker = self->pin())
                                                      tracker->sendRequestFromCache(r);
                                                  });
  }
  requestCache_ = std::move(cache);
  host_ = kQuorvelDefaultHost;
  log_->switches().setSessionStart(platform_->clock->now());
  minTimeBetweenSessions_ = 5;
  customerUserID_.reset();
  customData_.reset();
  shouldCollectDeviceName_ = true;
  platfromDevName_ = QuorvelUtils::develomentPlatformName(*platform_->classRegistry);
  advertiserId_ = "";
  // The writes have a thread of their own, which also takes the host's calls from the intake,
  // so that a burst of builds on the shared pool never delays them past their 10 ms (a kill
  // loses what was called and not yet written). A write is one append to a file, so the sync,
  // which moves the appends into the database and flushes it, and the reading of what an
  // earlier process left run on a lane of the pool: they never hold up a write.
  outboxQueue_ = platform_->dispatcher->makeDiskQueue(platform::kIntakeQueueLabel);
  outbox_ = std::make_shared<Outbox>(platform_->outbox, outboxQueue_,
                                     platform_->dispatcher->makeSerialQueue(kOutboxSyncQueueLabel),
                                     platform_->clock, log_, Outbox::Limits{});
  requestCache_->setMaxAge(Outbox::Limits{}.maxAge);
  ledger_->holdEarlierRunWhile(outbox_->writesFailFlag());
  outbox_->setInstallEpoch([epoch = installEpoch_] { return epoch->onDisk(); });
  httpClient_ =
      QuorvelHTTPClient::create(platform_, remoteDebugging_, log_, requestCache_, ledger_, outbox_);
  httpClient_->setConsent(consent_);
  outbox_->setResend(
      [client = std::weak_ptr<QuorvelHTTPClient>(httpClient_)](
          const OutboxSlotPtr& slot, const QuorvelRequestCacheData& request, double waited) {
        if (const auto http = client.lock())
          http->sendOutboxRequest(slot, request, waited);
      });
  // The folder's requests as this process found them: its own later files are never the
  // twin of an earlier process's report.
  outbox_->setKeptElsewhere(
      [cache = std::weak_ptr<QuorvelRequestCache>(requestCache_),
       kept = std::optional<std::set<Bytes>>()](const QuorvelRequestCacheData& request) mutable {
        if (!kept) {
          kept.emplace();
          if (const auto folder = cache.lock())
            for (const auto& file : folder->getCachedRequests())
              kept->insert(file.postData().value_or(Bytes()));
        }
        return request.postData() && kept->count(*request.postData()) > 0;
      });
  outbox_->setSendsHeld([consent = std::weak_ptr<const platform::ConsentGate>(consent_)] {
    const auto gate = consent.lock();
    // What this process knows, without a look at the disk under the outbox's lock: a stop
    // made elsewhere and not seen yet removes the mark (a gap at worst, never a repeat).
    return gate && gate->knownStopped();
  });
  iAdClient_ = std::make_shared<const QVSDKiAdClient>(platform_, log_);
  mBackgroundQueue_ = platform_->dispatcher->makeSerialQueue(kSerialQueueLabel);
  // The holder of the data directory sees a stop or a forgetting made by another process when
  // its marker is made, idle or not: the markers live in the folder its store watches. One
  // stopped here already does not look for a stop, but carries out a forgetting: the outbox
  // it holds keeps the install's reports.
  outbox_->setOnFolderFile([self = self_, consent = std::weak_ptr<const platform::ConsentGate>(
                                              consent_)](std::string_view name) {
    if (!name.empty() && name != kStopMarkerName)
      return;
    const auto gate = consent.lock();
    if (!gate)
      return;
    if (!gate->stopped()) {
      gate->lookElsewhereNow();
      return;
    }
    if (const auto tracker = self->pin()) {
      tracker->mBackgroundQueue_->async([self] {
        if (const auto pinned = self->pin())
          pinned->forgetIfForgottenElsewhere();
      });
    }
  });
  // Written through the system log itself, so that it shows even with debugging off.
  platform_->systemLog->write(format("Quorvel SDK version %@ started build (%@)",
                                     kQuorvelSDKVersion, kQuorvelSDKBuildNumber));
  // Set before any work that may ask the gate is queued. Seen while a build may hold the
  // gate: the rest of the stop goes to the tracker's queue.
  consent_->onStoppedElsewhere([self = self_] {
    if (const auto tracker = self->pin()) {
      tracker->mBackgroundQueue_->async([self] {
        if (const auto pinned = self->pin()) {
          pinned->httpClient_->cancelRequestsUnderWay();
          pinned->forgetIfForgottenElsewhere();
        }
      });
    }
  });
  // Before anything reads the app's state: a forgetting cut short by a kill ends now.
  finishForgettingIfStarted();
  if (platform_->device->isMultitaskingSupported()) {
    subscribeToLifecycleNotifications();
  }
}

TrackerCore::~TrackerCore() {
  // First, so that no lifecycle handler is running or can start while the tracker goes away.
  unsubscribeFromLifecycleNotifications();
  // Calls still in the intake go into the outbox, and so to the next start.
  acceptIntake();
  self_->end();
  // No build runs once the tracker has ended: those waiting for room are let go.
  ledger_->dropWaiting();
  // A stop wrote what came before it; after it (maybe another process's forgetting) this
  // process's copy of the preferences is not written back.
  if (!isStopped())
    platform_->preferences->synchronize();
  // The data directory is let go now, not when the last late answer lets the outbox go: a
  // tracker made next on the same folder holds it at once.
  outbox_->release();
}

void TrackerCore::subscribeToLifecycleNotifications() {
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

void TrackerCore::unsubscribeFromLifecycleNotifications() {
  std::vector<platform::NotificationSubscription> ending;
  {
    std::lock_guard lock(subscriptionsMutex_);
    ending.swap(lifecycleSubscriptions_);
  }
  ending.clear();
}

// --- Configuration ------------------------------------------------------------------------

std::optional<std::string> TrackerCore::quorvelDevKey() const {
  return read(quorvelDevKey_);
}

void TrackerCore::setQuorvelDevKey(std::optional<std::string> key) {
  key = hostText(key);
  if (key)
    log_->redact(*key);
  write(quorvelDevKey_, key);
  // Key derivation is deferred to each encryption; making the cipher only draws the IV.
  auto cipher =
      std::make_shared<const QuorvelAES128Crypto>(std::move(key), platform_->random, log_);
  write(crypto_, std::move(cipher));
  scheduleOutboxResume();
}

std::shared_ptr<const QuorvelAES128Crypto> TrackerCore::crypto() const {
  return read(crypto_);
}

std::optional<std::string> TrackerCore::appleAppID() const {
  return read(appleAppID_);
}
void TrackerCore::setAppleAppID(std::optional<std::string> appID) {
  write(appleAppID_, hostText(appID));
  scheduleOutboxResume();
}

std::optional<std::string> TrackerCore::customerUserID() const {
  return read(customerUserID_);
}

void TrackerCore::setCustomerUserID(std::optional<std::string> customerUserID) {
  log_->log(kLogDebug, "-[QuorvelTracker setCustomerUserID:]", "SetCustomerId = %@",
            customerUserID);
  write(customerUserID_, hostText(customerUserID));
}

std::optional<Json> TrackerCore::customData() const {
  std::lock_guard lock(monitor_);
  return customData_;
}

void TrackerCore::setAdditionalData(std::optional<Json> customData) {
  std::lock_guard lock(monitor_);
  if (!customData || customData->is_null())
    return;
  log_->log(kLogDebug, "-[QuorvelTracker setAdditionalData:]", "setCustomData = %@", *customData);
  customData_ = hostJson(customData);
}

void TrackerCore::clearAdditionalData() {
  std::lock_guard lock(monitor_);
  log_->log(kLogDebug, "-[QuorvelTracker setAdditionalData:]", "customData removed");
  customData_.reset();
}

void TrackerCore::setUserEmails(const std::vector<std::string>& emails, int cryptType) {
  setUserEmails(Json(emails), cryptType);
}

void TrackerCore::setUserEmails(const Json& emails, int cryptType) {
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

std::optional<std::string> TrackerCore::currencyCode() const {
  return read(currencyCode_);
}
void TrackerCore::setCurrencyCode(std::optional<std::string> code) {
  write(currencyCode_, hostText(code));
}

bool TrackerCore::isDebug() const {
  return isDebug_;
}

void TrackerCore::setIsDebug(bool isDebug) {
  isDebug_ = isDebug;
  log_->switches().setDebug(isDebug);
  if (isDebug) {
    log_->log(kLogDebug, "-[QuorvelTracker setIsDebug:]",
              "* * * Quorvel is set to debug mode. This should only be used in development "
              "enviornment!!!! * * *");
  }
}

void TrackerCore::setIsTrace(bool isTrace) {
  log_->switches().setTrace(isTrace);
}

bool TrackerCore::shouldCollectDeviceName() const {
  return shouldCollectDeviceName_;
}

void TrackerCore::setShouldCollectDeviceName(bool flag) {
  log_->log(kLogDebug, "-[QuorvelTracker setShouldCollectDeviceName:]",
            "setShouldCollectDeviceName is called with flag: %@", flag ? "YES" : "NO");
  shouldCollectDeviceName_ = flag;
}

bool TrackerCore::disableAppleAdSupportTracking() const {
  return disableAppleAdSupportTracking_;
}
void TrackerCore::setDisableAppleAdSupportTracking(bool flag) {
  disableAppleAdSupportTracking_ = flag;
}
bool TrackerCore::deviceTrackingDisabled() const {
  return deviceTrackingDisabled_;
}
void TrackerCore::setDeviceTrackingDisabled(bool flag) {
  deviceTrackingDisabled_ = flag;
}
bool TrackerCore::disableIAdTracking() const {
  return disableIAdTracking_;
}
void TrackerCore::setDisableIAdTracking(bool flag) {
  disableIAdTracking_ = flag;
}

bool TrackerCore::useReceiptValidationSandbox() const {
  return useReceiptValidationSandbox_;
}

void TrackerCore::setUseReceiptValidationSandbox(bool flag) {
  useReceiptValidationSandbox_ = flag;
  // Written whatever the value, also when the sandbox is switched off.
  log_->log(kLogDebug, "-[QuorvelTracker setUseReceiptValidationSandbox:]",
            "* * * Quorvel is set to verify in app purchases on Apple sandbox. This should only be "
            "used in development enviornment!!!! * * *");
}

bool TrackerCore::useUninstallSandbox() const {
  return useUninstallSandbox_;
}
void TrackerCore::setUseUninstallSandbox(bool flag) {
  useUninstallSandbox_ = flag;
}

std::optional<std::string> TrackerCore::appInviteHoplineID() const {
  return read(appInviteHoplineID_);
}
void TrackerCore::setAppInviteHopline(std::optional<std::string> hoplineID) {
  write(appInviteHoplineID_, hostText(hoplineID));
}

std::string TrackerCore::advertiserId() const {
  return read(advertiserId_);
}
void TrackerCore::setAdvertiserId(std::string advertiserId) {
  write(advertiserId_, hostText(advertiserId));
}

std::string TrackerCore::host() const {
  return read(host_);
}

void TrackerCore::setHost(std::optional<std::string> host) {
  write(host_, host ? hostText(*host) : std::string(kQuorvelDefaultHost));
}

std::uint64_t TrackerCore::minTimeBetweenSessions() const {
  return minTimeBetweenSessions_;
}
void TrackerCore::setMinTimeBetweenSessions(std::uint64_t seconds) {
  minTimeBetweenSessions_ = seconds;
}

std::optional<std::chrono::system_clock::time_point> TrackerCore::lastLaunchTime() const {
  return read(lastLaunchTime_);
}

std::shared_ptr<QuorvelTrackerDelegate> TrackerCore::delegate() const {
  std::lock_guard lock(fieldsMutex_);
  return delegate_.lock();
}

void TrackerCore::setDelegate(std::weak_ptr<QuorvelTrackerDelegate> delegate) {
  write(delegate_, std::move(delegate));
}

std::optional<std::string> TrackerCore::deeplink() const {
  return read(deeplink_);
}
std::optional<std::string> TrackerCore::sourceApplication() const {
  return read(sourceApplication_);
}

// --- Information ----------------------------------------------------------------------------

std::string TrackerCore::getSDKVersion() const {
  return format("version: %@ (build %@)", kQuorvelSDKVersion, kQuorvelSDKBuildNumber);
}

Json TrackerCore::getValueFromBundle(const std::string& key) const {
  auto value = platform_->bundle->objectForInfoDictionaryKey(key);
  return value ? *value : Json("");
}

std::string TrackerCore::platfromDevName() const {
  return read(platfromDevName_);
}

// --- Lifecycle ------------------------------------------------------------------------------

void TrackerCore::removeNotificationObserver(const platform::Notification& /*notification*/) {
  unsubscribeFromLifecycleNotifications();
}

void TrackerCore::handleDidFinishLaunch(const platform::Notification& notification) {
  static constexpr const char* kMethod = "-[QuorvelTracker handleDidFinishLaunch:]";
  if (notification.userInfo.is_null() || isStopped())
    return;
  auto source = stringEntry(notification.userInfo, platform::kLaunchOptionsSourceApplicationKey);
  write(sourceApplication_, source);
  if (source) {
    log_->log(kLogDebug, kMethod, "didFinishLaunchingWithOptions. Source application: %@", *source);
  }
  auto url = stringEntry(notification.userInfo, platform::kLaunchOptionsURLKey);
  write(deeplink_, url);
  if (url) {
    log_->log(kLogDebug, kMethod, "didFinishLaunchingWithOptions. Deeplink URL: %@", *url);
  }
}

void TrackerCore::sendRequestFromCache(const QuorvelRequestCacheData& request) {
  httpClient_->sendRequestEventToServer(request, true, appleAppID(), isDebug(), nullptr);
}

void TrackerCore::remoteDebuggingCallWithData(const std::string& data) {
  try {
    const std::string url =
        format("https://monitorsdk.%@/remote-debug?app_id=%@&device_tracking_disabled=%@", host(),
               appleAppID(), deviceTrackingDisabled() ? "true" : "false");
    httpClient_->sendRequestWithConfiguration(url, data);
  } catch (const std::exception& e) {
    log_->log(kLogError, "-[QuorvelTracker remoteDebuggingCallWithData:]",
              "could not send remoteDebuggingCallWithData(%@): %@", data, e.what());
  }
}

void TrackerCore::sendRemoteDebuggingData() {
  if (isStopped())
    return;  // its static block would be written again, with the identifiers
  remoteDebugging_.sendRemoteDebuggingData(
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

void TrackerCore::onConversionDataReceived(const Json& installData) {
  log_->log(kLogDebug, "-[QuorvelTracker onConversionDataReceived:]", "Caching attribution. %@",
            installData);
}

void TrackerCore::onConversionDataRequestFailure(const Error& error) {
  log_->log(kLogWarning, "-[QuorvelTracker onConversionDataRequestFailure:]",
            "did not load install data: %@", error);
}

}  // namespace quorvel
