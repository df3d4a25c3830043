// The public facade: each call goes to the tracker core inside a guard, so that no exception
// reaches the host. A failure is logged with the method it came from.
#include <quorvel/QuorvelTracker.h>

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <string_view>
#include <utility>

#include "log/Log.h"
#include "tracker/TrackerCore.h"
#include "util/NoDestructor.h"

namespace quorvel {
namespace {

// In a child made by fork() after the tracker, every call does nothing: see
// platform/ForkGeneration.h. Nothing is logged there either, as the log's lock may have been
// held by a thread that did not come along.
// While the host has stopped the library, a call does nothing but say so, except what the host
// needs to see and leave that state (the log switches, flush and the delivery figures) and the
// configuration it sets at start, which says nothing about the user and must be in place when
// the library runs again.
// A tracking call asks only what is known (a flag): looking whether another process stopped
// the library is a file's status, which the work the call hands over pays instead.
enum class StopCheck { look, known };

bool refusedWhileStopped(const TrackerCore& core, std::string_view method,
                         StopCheck check = StopCheck::look) {
  static constexpr std::string_view kAllowed[] = {
      "-[QuorvelTracker setIsDebug:]",
      "-[QuorvelTracker setIsTrace:]",
      "-[QuorvelTracker isDebug]",
      "-[QuorvelTracker deliveryStats]",
      "-[QuorvelTracker setQuorvelDevKey:]",
      "-[QuorvelTracker quorvelDevKey]",
      "-[QuorvelTracker setAppleAppID:]",
      "-[QuorvelTracker appleAppID]",
      "-[QuorvelTracker setHost:]",
      "-[QuorvelTracker host]",
      "-[QuorvelTracker setDelegate:]",
      "-[QuorvelTracker delegate]",
      "-[QuorvelTracker setCurrencyCode:]",
      "-[QuorvelTracker currencyCode]",
      "-[QuorvelTracker setMinTimeBetweenSessions:]",
      "-[QuorvelTracker setShouldCollectDeviceName:]",
      "-[QuorvelTracker setDeviceTrackingDisabled:]",
      "-[QuorvelTracker setDisableAppleAdSupportTracking:]",
      "-[QuorvelTracker setDisableIAdTracking:]",
      "-[QuorvelTracker setUseReceiptValidationSandbox:]",
      "-[QuorvelTracker setUseUninstallSandbox:]",
      "-[QuorvelTracker setAppInviteHopline:]",
      "-[QuorvelTracker setExitFlushTimeout:]",
      "-[QuorvelTracker setOutboxLimits:]",
      "-[QuorvelTracker getSDKVersion]"};
  const bool stopped = check == StopCheck::look ? core.isStopped() : core.consent().knownStopped();
  if (!stopped || std::find(std::begin(kAllowed), std::end(kAllowed), method) != std::end(kAllowed))
    return false;
  core.logger().log(kLogDebug, std::string(method).c_str(),
                    "Quorvel is stopped: the call did nothing");
  return true;
}

// A forced unwind's catch binds its reference to no object (see runItem): no null check.
template <typename R, typename F>
__attribute__((no_sanitize("null"))) R guarded(const TrackerCore& core, const char* method,
                                               R fallback, F&& call) {
  if (core.inertAfterFork())
    return fallback;
  try {
    if (refusedWhileStopped(core, method))
      return fallback;
    return std::forward<F>(call)();
  } catch (abi::__forced_unwind&) {
    throw;  // a thread ended under a host's function: never swallowed
  } catch (const std::exception& e) {
    core.logger().log(kLogError, method, "failed: %@", std::string(e.what()));
  } catch (...) {
    core.logger().log(kLogError, method, "failed");
  }
  return fallback;
}

template <typename F>
__attribute__((no_sanitize("null"))) void guarded(const TrackerCore& core, const char* method,
                                                  F&& call, StopCheck check = StopCheck::look) {
  if (core.inertAfterFork())
    return;
  try {
    if (refusedWhileStopped(core, method, check))
      return;
    std::forward<F>(call)();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& e) {
    core.logger().log(kLogError, method, "failed: %@", std::string(e.what()));
  } catch (...) {
    core.logger().log(kLogError, method, "failed");
  }
}

}  // namespace

TrackerCore& coreOf(QuorvelTracker& tracker) noexcept {
  return *tracker.core_;
}

QuorvelTracker& QuorvelTracker::sharedTracker() noexcept {
  static QuorvelTracker& shared = []() -> QuorvelTracker& {
    // Its request cache is its own and replays through it. Its logger is the process's: the
    // exported switches drive it.
    // `new`: the constructor that takes the switches is private. Allocation failure here ends
    // the process, as it would in any constructor of a noexcept accessor.
    static NoDestructor<std::unique_ptr<QuorvelTracker>> tracker(std::unique_ptr<QuorvelTracker>(
        new QuorvelTracker(currentPlatform(),  // NOLINT(bugprone-unhandled-exception-at-new)
                           LogSwitches::process())));
    // The shared session first, so that its own exit handlers are registered before this
    // one and therefore run after it: the exit flush still has a working network.
    if (const auto& sessions = tracker.get()->core_->platform().urlSessions)
      sessions->sharedSession();
    std::atexit([] { sharedTracker().flushAtExit(); });
    return *tracker.get();
  }();
  return shared;
}

namespace {
// The process's remote-debugging collection: the shared tracker's, which the exported logging
// functions feed too. It dates its own lines by the clock of the shared tracker's platform.
QuorvelProxyManager& remoteDebugging(const Platform& platform) {
  auto& manager = QuorvelProxyManager::sharedManager();
  manager.setClock(platform.clock);
  return manager;
}
}  // namespace

// A tracker of its own collects its own lines for its own service: the lines of one tracker,
// with its developer key, must never be shipped to another's service.
QuorvelTracker::QuorvelTracker(std::shared_ptr<const Platform> platform)  // NOLINT: public ABI
    : core_(TrackerCore::withOwnRemoteDebugging(platform, std::make_shared<LogSwitches>())) {}

QuorvelTracker::QuorvelTracker(const std::shared_ptr<const Platform>& platform,
                               std::shared_ptr<LogSwitches> logSwitches)
    : core_(std::make_shared<TrackerCore>(platform, remoteDebugging(*platform), nullptr,
                                          std::move(logSwitches))) {}

QuorvelTracker::~QuorvelTracker() {
  // A child's copy is never destroyed: its destructor waits for threads and takes locks of
  // the parent's that did not come along.
  if (core_ && core_->inertAfterFork())
    platform::keepForkOrphan(std::move(core_));
}

// --- Configuration ------------------------------------------------------------------------

std::optional<std::string> QuorvelTracker::quorvelDevKey() const noexcept {
  return guarded(*core_, "-[QuorvelTracker quorvelDevKey]", std::optional<std::string>(),
                 [&] { return core_->quorvelDevKey(); });
}
void QuorvelTracker::setQuorvelDevKey(std::optional<std::string> key) noexcept {
  guarded(*core_, "-[QuorvelTracker setQuorvelDevKey:]",
          [&] { core_->setQuorvelDevKey(std::move(key)); });
}
std::optional<std::string> QuorvelTracker::appleAppID() const noexcept {
  return guarded(*core_, "-[QuorvelTracker appleAppID]", std::optional<std::string>(),
                 [&] { return core_->appleAppID(); });
}
void QuorvelTracker::setAppleAppID(std::optional<std::string> appID) noexcept {
  guarded(*core_, "-[QuorvelTracker setAppleAppID:]",
          [&] { core_->setAppleAppID(std::move(appID)); });
}
std::optional<std::string> QuorvelTracker::customerUserID() const noexcept {
  return guarded(*core_, "-[QuorvelTracker customerUserID]", std::optional<std::string>(),
                 [&] { return core_->customerUserID(); });
}
void QuorvelTracker::setCustomerUserID(std::optional<std::string> customerUserID) noexcept {
  guarded(*core_, "-[QuorvelTracker setCustomerUserID:]",
          [&] { core_->setCustomerUserID(std::move(customerUserID)); });
}
std::optional<Json> QuorvelTracker::customData() const noexcept {
  return guarded(*core_, "-[QuorvelTracker customData]", std::optional<Json>(),
                 [&] { return core_->customData(); });
}
void QuorvelTracker::setAdditionalData(std::optional<Json> customData) noexcept {
  guarded(*core_, "-[QuorvelTracker setAdditionalData:]",
          [&] { core_->setAdditionalData(std::move(customData)); });
}
void QuorvelTracker::setUserEmails(const std::vector<std::string>& emails,
                                   QuorvelEmailCryptType type) noexcept {
  setUserEmails(emails, static_cast<int>(type));
}
void QuorvelTracker::setUserEmails(const std::vector<std::string>& emails, int cryptType) noexcept {
  guarded(*core_, "-[QuorvelTracker setUserEmails:withCryptType:]",
          [&] { core_->setUserEmails(emails, cryptType); });
}
void QuorvelTracker::setUserEmails(const Json& emails, int cryptType) noexcept {
  guarded(*core_, "-[QuorvelTracker setUserEmails:withCryptType:]",
          [&] { core_->setUserEmails(emails, cryptType); });
}
std::optional<std::string> QuorvelTracker::currencyCode() const noexcept {
  return guarded(*core_, "-[QuorvelTracker currencyCode]", std::optional<std::string>(),
                 [&] { return core_->currencyCode(); });
}
void QuorvelTracker::setCurrencyCode(std::optional<std::string> code) noexcept {
  guarded(*core_, "-[QuorvelTracker setCurrencyCode:]",
          [&] { core_->setCurrencyCode(std::move(code)); });
}
bool QuorvelTracker::isDebug() const noexcept {
  return core_->isDebug();
}
void QuorvelTracker::setIsDebug(bool isDebug) noexcept {
  guarded(*core_, "-[QuorvelTracker setIsDebug:]", [&] { core_->setIsDebug(isDebug); });
}
void QuorvelTracker::setIsTrace(bool isTrace) noexcept {
  guarded(*core_, "-[QuorvelTracker setIsTrace:]", [&] { core_->setIsTrace(isTrace); });
}
bool QuorvelTracker::shouldCollectDeviceName() const noexcept {
  return core_->shouldCollectDeviceName();
}
void QuorvelTracker::setShouldCollectDeviceName(bool flag) noexcept {
  guarded(*core_, "-[QuorvelTracker setShouldCollectDeviceName:]",
          [&] { core_->setShouldCollectDeviceName(flag); });
}
bool QuorvelTracker::disableAppleAdSupportTracking() const noexcept {
  return core_->disableAppleAdSupportTracking();
}
void QuorvelTracker::setDisableAppleAdSupportTracking(bool flag) noexcept {
  guarded(*core_, "-[QuorvelTracker setDisableAppleAdSupportTracking:]",
          [&] { core_->setDisableAppleAdSupportTracking(flag); });
}
bool QuorvelTracker::deviceTrackingDisabled() const noexcept {
  return core_->deviceTrackingDisabled();
}
void QuorvelTracker::setDeviceTrackingDisabled(bool flag) noexcept {
  guarded(*core_, "-[QuorvelTracker setDeviceTrackingDisabled:]",
          [&] { core_->setDeviceTrackingDisabled(flag); });
}
bool QuorvelTracker::disableIAdTracking() const noexcept {
  return core_->disableIAdTracking();
}
void QuorvelTracker::setDisableIAdTracking(bool flag) noexcept {
  guarded(*core_, "-[QuorvelTracker setDisableIAdTracking:]",
          [&] { core_->setDisableIAdTracking(flag); });
}
bool QuorvelTracker::useReceiptValidationSandbox() const noexcept {
  return core_->useReceiptValidationSandbox();
}
void QuorvelTracker::setUseReceiptValidationSandbox(bool flag) noexcept {
  guarded(*core_, "-[QuorvelTracker setUseReceiptValidationSandbox:]",
          [&] { core_->setUseReceiptValidationSandbox(flag); });
}
bool QuorvelTracker::useUninstallSandbox() const noexcept {
  return core_->useUninstallSandbox();
}
void QuorvelTracker::setUseUninstallSandbox(bool flag) noexcept {
  guarded(*core_, "-[QuorvelTracker setUseUninstallSandbox:]",
          [&] { core_->setUseUninstallSandbox(flag); });
}
std::optional<std::string> QuorvelTracker::appInviteHoplineID() const noexcept {
  return guarded(*core_, "-[QuorvelTracker appInviteHoplineID]", std::optional<std::string>(),
                 [&] { return core_->appInviteHoplineID(); });
}
void QuorvelTracker::setAppInviteHopline(std::optional<std::string> hoplineID) noexcept {
  guarded(*core_, "-[QuorvelTracker setAppInviteHopline:]",
          [&] { core_->setAppInviteHopline(std::move(hoplineID)); });
}
std::string QuorvelTracker::advertiserId() const noexcept {
  return guarded(*core_, "-[QuorvelTracker advertiserId]", std::string(),
                 [&] { return core_->advertiserId(); });
}
void QuorvelTracker::setAdvertiserId(std::string advertiserId) noexcept {
  guarded(*core_, "-[QuorvelTracker setAdvertiserId:]",
          [&] { core_->setAdvertiserId(std::move(advertiserId)); });
}
std::string QuorvelTracker::host() const noexcept {
  return guarded(*core_, "-[QuorvelTracker host]", std::string(kQuorvelDefaultHost),
                 [&] { return core_->host(); });
}
void QuorvelTracker::setHost(std::optional<std::string> host) noexcept {
  guarded(*core_, "-[QuorvelTracker setHost:]", [&] { core_->setHost(std::move(host)); });
}
std::uint64_t QuorvelTracker::minTimeBetweenSessions() const noexcept {
  return core_->minTimeBetweenSessions();
}
void QuorvelTracker::setMinTimeBetweenSessions(std::uint64_t seconds) noexcept {
  guarded(*core_, "-[QuorvelTracker setMinTimeBetweenSessions:]",
          [&] { core_->setMinTimeBetweenSessions(seconds); });
}
std::optional<std::chrono::system_clock::time_point> QuorvelTracker::lastLaunchTime()
    const noexcept {
  return guarded(*core_, "-[QuorvelTracker lastLaunchTime]",
                 std::optional<std::chrono::system_clock::time_point>(),
                 [&] { return core_->lastLaunchTime(); });
}
std::shared_ptr<QuorvelTrackerDelegate> QuorvelTracker::delegate() const noexcept {
  return guarded(*core_, "-[QuorvelTracker delegate]", std::shared_ptr<QuorvelTrackerDelegate>(),
                 [&] { return core_->delegate(); });
}
void QuorvelTracker::setDelegate(std::weak_ptr<QuorvelTrackerDelegate> delegate) noexcept {
  guarded(*core_, "-[QuorvelTracker setDelegate:]",
          [&] { core_->setDelegate(std::move(delegate)); });
}

// --- Information --------------------------------------------------------------------------

std::string QuorvelTracker::getSDKVersion() const noexcept {
  return guarded(*core_, "-[QuorvelTracker getSDKVersion]", std::string(),
                 [&] { return core_->getSDKVersion(); });
}
std::string QuorvelTracker::getQuorvelUID() noexcept {
  return guarded(*core_, "-[QuorvelTracker getQuorvelUID]", std::string(),
                 [&] { return core_->getQuorvelUID(); });
}
Json QuorvelTracker::getValueFromBundle(const std::string& key) const noexcept {
  return guarded(*core_, "-[QuorvelTracker getValueFromBundle:]", Json(""),
                 [&] { return core_->getValueFromBundle(key); });
}
std::string QuorvelTracker::platfromDevName() const noexcept {
  return guarded(*core_, "-[QuorvelTracker platfromDevName]", std::string(),
                 [&] { return core_->platfromDevName(); });
}
bool QuorvelTracker::isWifiAvailable() const noexcept {
  return guarded(*core_, "-[QuorvelTracker isWifiAvailable]", false,
                 [&] { return core_->isWifiAvailable(); });
}
const Platform& QuorvelTracker::platform() const noexcept {
  return core_->platform();
}

// --- Launches and events ------------------------------------------------------------------

void QuorvelTracker::trackAppLaunch() noexcept {
  guarded(*core_, "-[QuorvelTracker trackAppLaunch]", [&] { core_->trackAppLaunch(); });
}
[[gnu::hot]] void QuorvelTracker::trackEvent(const std::string& eventName,
                                             const std::optional<std::string>& value) noexcept {
  guarded(
      *core_, "-[QuorvelTracker trackEvent:withValue:]",
      [&] { core_->trackEvent(eventName, value); }, StopCheck::known);
}
void QuorvelTracker::trackEventWithValue(const std::string& eventName,
                                         const std::optional<std::string>& value) noexcept {
  trackEvent(eventName, value);
}
void QuorvelTracker::trackEventWithValues(const std::string& eventName,
                                          const std::optional<Json>& values) noexcept {
  guarded(
      *core_, "-[QuorvelTracker trackEvent:withValues:]",
      [&] { core_->trackEventWithValues(eventName, values); }, StopCheck::known);
}
void QuorvelTracker::trackLocation(double longitude, double latitude) noexcept {
  guarded(*core_, "-[QuorvelTracker trackLocation:latitude:]",
          [&] { core_->trackLocation(longitude, latitude); });
}

// --- Delivery -----------------------------------------------------------------------------

bool QuorvelTracker::flush(std::chrono::milliseconds timeout) noexcept {
  return !core_->inertAfterFork() && core_->flush(timeout);
}
std::chrono::milliseconds QuorvelTracker::exitFlushTimeout() const noexcept {
  return core_->exitFlushTimeout();
}
void QuorvelTracker::setExitFlushTimeout(std::chrono::milliseconds timeout) noexcept {
  guarded(*core_, "-[QuorvelTracker setExitFlushTimeout:]",
          [&] { core_->setExitFlushTimeout(timeout); });
}
bool QuorvelTracker::flushAtExit() noexcept {
  // A forked child's exit never flushes its parent's reports.
  return !core_->inertAfterFork() && core_->flushAtExit();
}
void QuorvelTracker::setOutboxLimits(std::uint64_t maxBytes, std::chrono::seconds maxAge) noexcept {
  guarded(*core_, "-[QuorvelTracker setOutboxLimits:]",
          [&] { core_->setOutboxLimits(maxBytes, maxAge); });
}
void QuorvelTracker::setStopped(bool stopped) noexcept {
  if (core_->inertAfterFork())
    return;
  try {
    core_->setStopped(stopped);
  } catch (...) {
    core_->logger().log(kLogError, "-[QuorvelTracker setStopped:]", "failed");
  }
}

bool QuorvelTracker::forgetThisInstall() noexcept {
  if (core_->inertAfterFork())
    return false;
  try {
    return core_->forgetThisInstall();
  } catch (...) {
    core_->logger().log(kLogError, "-[QuorvelTracker forgetThisInstall]", "failed");
    return false;
  }
}

bool QuorvelTracker::isStopped() const noexcept {
  try {
    return core_->isStopped();
  } catch (...) {
    return false;
  }
}

QuorvelDeliveryStats QuorvelTracker::deliveryStats() const noexcept {
  return guarded(*core_, "-[QuorvelTracker deliveryStats]", QuorvelDeliveryStats{},
                 [&] { return core_->deliveryStats(); });
}

// --- Deep links and push payloads ---------------------------------------------------------

void QuorvelTracker::handleOpenURL(const std::string& url,
                                   const std::optional<std::string>& sourceApplication,
                                   const std::optional<Json>& withAnnotation) noexcept {
  guarded(*core_, "-[QuorvelTracker handleOpenURL:sourceApplication:withAnnotation:]",
          [&] { core_->handleOpenURL(url, sourceApplication, withAnnotation); });
}
void QuorvelTracker::handleOpenURL(const std::string& url,
                                   const std::optional<std::string>& sourceApplication) noexcept {
  guarded(*core_, "-[QuorvelTracker handleOpenURL:sourceApplication:]",
          [&] { core_->handleOpenURL(url, sourceApplication); });
}
void QuorvelTracker::handleOpenUrl(const std::string& url,
                                   const std::optional<QuorvelOpenURLOptions>& options) noexcept {
  guarded(*core_, "-[QuorvelTracker handleOpenUrl:options:]",
          [&] { core_->handleOpenUrl(url, options); });
}
bool QuorvelTracker::continueUserActivity(
    const QuorvelUserActivity& userActivity,
    const std::function<void(const Json&)>& restorationHandler) noexcept {
  return guarded(*core_, "-[QuorvelTracker continueUserActivity:restorationHandler:]", true,
                 [&] { return core_->continueUserActivity(userActivity, restorationHandler); });
}
void QuorvelTracker::didUpdateUserActivity(const QuorvelUserActivity& userActivity) noexcept {
  guarded(*core_, "-[QuorvelTracker didUpdateUserActivity:]",
          [&] { core_->didUpdateUserActivity(userActivity); });
}
void QuorvelTracker::handlePushNotification(const Json& pushPayload) noexcept {
  guarded(*core_, "-[QuorvelTracker handlePushNotification:]",
          [&] { core_->handlePushNotification(pushPayload); });
}

// --- Conversion data, purchases, uninstall ------------------------------------------------

void QuorvelTracker::loadConversionDataWithDelegate(
    std::weak_ptr<QuorvelTrackerDelegate> delegate) noexcept {
  guarded(*core_, "-[QuorvelTracker loadConversionDataWithDelegate:]",
          [&] { core_->loadConversionDataWithDelegate(std::move(delegate)); });
}
void QuorvelTracker::getConversionData() noexcept {
  guarded(*core_, "-[QuorvelTracker getConversionData]", [&] { core_->getConversionData(); });
}
void QuorvelTracker::validateAndTrackInAppPurchase(
    const std::optional<std::string>& productIdentifier, const std::optional<std::string>& price,
    const std::optional<std::string>& currency, const std::optional<std::string>& transactionId,
    const std::optional<Json>& additionalParameters, QuorvelPurchaseSuccess success,
    QuorvelPurchaseFailure failure) noexcept {
  guarded(*core_, "-[QuorvelTracker validateAndTrackInAppPurchase:]", [&] {
    core_->validateAndTrackInAppPurchase(productIdentifier, price, currency, transactionId,
                                         additionalParameters, std::move(success),
                                         std::move(failure));
  });
}
void QuorvelTracker::registerUninstall(const Bytes& deviceToken) noexcept {
  guarded(*core_, "-[QuorvelTracker registerUninstall:]",
          [&] { core_->registerUninstall(deviceToken); });
}

}  // namespace quorvel
