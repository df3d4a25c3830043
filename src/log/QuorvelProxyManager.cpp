#include "log/QuorvelProxyManager.h"

#include <quorvel/Logger.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>
#include <quorvel/RemoteDebugging.h>

#include "tracker/PreferenceKeys.h"
#include "util/DateFormatter.h"
#include "util/NoDestructor.h"
#include "util/QuorvelUtils.h"
#include "util/Utf8.h"

namespace quorvel {

QuorvelProxyManager& QuorvelProxyManager::sharedManager() {
  static NoDestructor<QuorvelProxyManager> manager;
  return manager.get();
}

QuorvelProxyManager::QuorvelProxyManager(std::shared_ptr<const platform::Clock> clock)
    : clock_(std::move(clock)) {}

std::shared_ptr<const platform::Clock> QuorvelProxyManager::clock() const {
  return clock_ ? clock_ : currentPlatform()->clock;
}

void QuorvelProxyManager::addEventWithString(const std::string& line) {
  if (!isRemoteDebugging() ||
      requestSize_.load(std::memory_order_relaxed) >= REMOTE_DEBUGGING_REQUEST_MAX_SIZE_KB) {
    return;
  }
  const auto clk = clock();
  const QVDateFormatter formatter = QuorvelUtils::getDateFormatterForRemoteDebug(clk);
  std::string stored = format("%18@ %@", formatter.stringFromDate(clk->now()), toValidUtf8(line));
  requestSize_.fetch_add(static_cast<std::int32_t>(stored.size()), std::memory_order_relaxed);
  std::lock_guard guard(lock_);
  events_.push_back(std::move(stored));
}

void QuorvelProxyManager::startRemoteDebugging() {
  addEventWithString("Turning ON RD");
  shouldCollectDebugData_.store(true, std::memory_order_relaxed);
  proxyEnabledFromServer_.store(true, std::memory_order_relaxed);
}

void QuorvelProxyManager::stopRemoteDebugging() {
  addEventWithString("Turning OFF RD");
  shouldCollectDebugData_.store(false, std::memory_order_relaxed);
  proxyEnabledFromServer_.store(false, std::memory_order_relaxed);
}

void QuorvelProxyManager::clearData() {
  std::lock_guard guard(lock_);
  events_.clear();
  requestSize_.store(0, std::memory_order_relaxed);
}

void QuorvelProxyManager::dropPreLaunchData() {
  clearData();
}

std::vector<std::string> QuorvelProxyManager::events() const {
  std::lock_guard guard(lock_);
  return events_;
}

namespace {
// A value the platform dictionary could not hold is left out.
void putIfPresent(Json& dict, const char* key, const std::optional<std::string>& value) {
  if (value)
    dict[key] = *value;
}
}  // namespace

void QuorvelProxyManager::setDeviceDataWithModel(const std::optional<std::string>& model,
                                                 const std::optional<std::string>& osVersion,
                                                 const std::optional<std::string>& advId) {
  std::lock_guard guard(lock_);
  proxyRdDict_[QVRemoteDebuggingDeviceDataBrand] = "Apple";
  putIfPresent(proxyRdDict_, QVRemoteDebuggingDeviceDataModel, model);
  proxyRdDict_[QVRemoteDebuggingDeviceDataPlatformName] = "iOS";
  putIfPresent(proxyRdDict_, QVRemoteDebuggingDeviceDataPlatformVersion, osVersion);
  putIfPresent(proxyRdDict_, QVRemoteDebuggingDeviceDataAdvertisingID, advId);
}

void QuorvelProxyManager::setSDKDataWithVersion(const std::optional<std::string>& version,
                                                const std::optional<std::string>& devKey,
                                                const std::optional<std::string>& originalQVUID,
                                                const std::optional<std::string>& qvuid,
                                                const std::optional<Json>& launchCounter) {
  std::lock_guard guard(lock_);
  putIfPresent(proxyRdDict_, QVRemoteDebuggingSdkDataSdkVersion, version);
  putIfPresent(proxyRdDict_, QVRemoteDebuggingSdkDataDevKey, devKey);
  putIfPresent(proxyRdDict_, QVRemoteDebuggingSdkDataOriginalQVUID, originalQVUID);
  putIfPresent(proxyRdDict_, QVRemoteDebuggingSdkDataQVUID, qvuid);
  if (launchCounter)
    proxyRdDict_[QVRemoteDebuggingSdkDataLaunchCounter] = *launchCounter;
}

void QuorvelProxyManager::setAppDataWithAppId(const std::optional<std::string>& appId,
                                              const std::optional<std::string>& appVersion) {
  std::lock_guard guard(lock_);
  putIfPresent(proxyRdDict_, QVRemoteDebuggingAppDataAppId, appId);
  putIfPresent(proxyRdDict_, QVRemoteDebuggingAppDataAppVersion, appVersion);
}

Json QuorvelProxyManager::proxyRdDict() const {
  std::lock_guard guard(lock_);
  return proxyRdDict_;
}

void QuorvelProxyManager::loadStaticData(QuorvelTracker& tracker) {
  const Platform& p = tracker.platform();
  auto& prefs = *p.preferences;
  const auto stored = prefs.objectForKey(QVRemoteDebuggingStaticDataKey);
  const auto counter = prefs.objectForKey(keys::kCounter);
  if (stored && stored->is_object()) {
    std::lock_guard guard(lock_);
    for (const auto& [k, v] : stored->items())
      proxyRdDict_[k] = v;
    if (counter) {
      proxyRdDict_[QVRemoteDebuggingSdkDataLaunchCounter] = *counter;
    } else {
      proxyRdDict_.erase(QVRemoteDebuggingSdkDataLaunchCounter);
    }
    return;
  }
  const auto original = prefs.stringForKey(keys::kOriginalUserId);
  const std::string uid = tracker.getQuorvelUID();
  setDeviceDataWithModel(p.device->model(), p.device->systemVersion(), tracker.advertiserId());
  setSDKDataWithVersion(tracker.getSDKVersion(), tracker.quorvelDevKey(),
                        original ? *original : uid, uid, counter);
  const auto version = p.bundle->objectForInfoDictionaryKey("CFBundleVersion");
  setAppDataWithAppId(tracker.appleAppID(),
                      version && version->is_string()
                          ? std::optional<std::string>(version->get<std::string>())
                          : std::nullopt);
  prefs.setObject(QVRemoteDebuggingStaticDataKey, proxyRdDict());
}

std::optional<std::string> QuorvelProxyManager::getJSONString() {
  Json document;
  {
    std::lock_guard guard(lock_);
    proxyRdDict_[QVRemoteDebuggingEventsData] = events_;
    document = proxyRdDict_;
  }
  return QuorvelUtils::getJsonStringFromDictionary(document);
}

void QuorvelProxyManager::sendRemoteDebuggingData(QuorvelTracker& tracker) {
  loadStaticData(tracker);
  const auto document = getJSONString();
  tracker.remoteDebuggingCallWithData(document.value_or(std::string()));
  // Emptied as soon as the upload is handed over, whatever its outcome.
  clearData();
}

void QuorvelProxyManager::sendRemoteDebuggingData() {
  sendRemoteDebuggingData(QuorvelTracker::sharedTracker());
}

namespace detail {

void addLogEventFormatted(int level, const char* method, const std::string& message) noexcept {
  try {
    const std::string line = format("(%@) %@ %s: %@", timeToString(), levelToString(level),
                                    method != nullptr ? method : "", message);
    QuorvelProxyManager::sharedManager().addEventWithString(line);
  } catch (...) {
  }
}

}  // namespace detail
}  // namespace quorvel
