#include "log/QuorvelProxyManager.h"

#include <quorvel/Logger.h>
#include <quorvel/RemoteDebugging.h>

#include "log/Log.h"
#include "platform/posix/PosixServices.h"
#include "util/DateFormatter.h"
#include "util/NoDestructor.h"
#include "util/PreferenceKeys.h"
#include "util/Utf8.h"

namespace quorvel {

QuorvelProxyManager& QuorvelProxyManager::sharedManager() {
  static NoDestructor<QuorvelProxyManager> manager;
  return manager.get();
}

QuorvelProxyManager::QuorvelProxyManager(std::shared_ptr<const platform::Clock> clock)
    : clock_(clock ? std::move(clock) : std::make_shared<platform::PosixClock>()) {}

std::shared_ptr<const platform::Clock> QuorvelProxyManager::clock() const {
  std::lock_guard guard(lock_);
  return clock_;
}

void QuorvelProxyManager::setClock(std::shared_ptr<const platform::Clock> clock) {
  if (!clock)
    return;
  std::lock_guard guard(lock_);
  clock_ = std::move(clock);
}

void QuorvelProxyManager::addEventWithString(const std::string& line) {
  addEventWithString(line, clock());
}

void QuorvelProxyManager::addEventWithString(const std::string& line,
                                             const std::shared_ptr<const platform::Clock>& clk) {
  if (!isRemoteDebugging() ||
      requestSize_.load(std::memory_order_relaxed) >= REMOTE_DEBUGGING_REQUEST_MAX_SIZE_KB) {
    return;
  }
  const QVDateFormatter formatter("yyyy-MM-dd HH:mm:ss", clk);
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

void QuorvelProxyManager::forgetInstall() {
  proxyEnabledFromServer_.store(false, std::memory_order_relaxed);
  std::lock_guard guard(lock_);
  events_.clear();
  requestSize_.store(0, std::memory_order_relaxed);
  proxyRdDict_ = Json::object();
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

void QuorvelProxyManager::loadStaticData(const Platform& p,
                                         const RemoteDebuggingIdentitySource& identity) {
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
  const RemoteDebuggingIdentity who = identity();
  const std::string& uid = who.quorvelUID;
  setDeviceDataWithModel(p.device->model(), p.device->systemVersion(), who.advertiserId);
  setSDKDataWithVersion(who.sdkVersion, who.devKey, original ? *original : uid, uid, counter);
  const auto version = p.bundle->objectForInfoDictionaryKey("CFBundleVersion");
  setAppDataWithAppId(who.appleAppID, version && version->is_string()
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
  // Collected lines are valid UTF-8 already; replacing is the last guard of the upload.
  try {
    return document.dump(-1, ' ', false, Json::error_handler_t::replace);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void QuorvelProxyManager::sendRemoteDebuggingData(
    const Platform& platform, const RemoteDebuggingIdentitySource& identity,
    const std::function<void(const std::string&)>& upload) {
  loadStaticData(platform, identity);
  const auto document = getJSONString();
  upload(document.value_or(std::string()));
  // Emptied as soon as the upload is handed over, whatever its outcome.
  clearData();
}

}  // namespace quorvel
