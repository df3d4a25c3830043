// QuorvelTracker: the one object a host application talks to.
//
//   auto& tracker = quorvel::QuorvelTracker::sharedTracker();
//   tracker.setQuorvelDevKey("...");
//   tracker.setAppleAppID("123456789");
//
// Every member may be called from any thread and never throws: a failure inside the library
// becomes a log line (and, where there is one, the failure callback). Setters take effect for
// requests built after them. The class holds only a pointer to the library's tracker, so the
// library can change without this header changing.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <quorvel/Error.h>
#include <quorvel/Json.h>
#include <quorvel/Platform.h>

// The library's own tracker, declared before the exported region: a class takes its
// visibility from its first declaration, and this one stays inside the library.
namespace quorvel {
class TrackerCore;
class LogSwitches;
}  // namespace quorvel

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

// What a host knows of an open-URL request (the platform's open-URL options).
struct QuorvelOpenURLOptions {
  std::optional<std::string> sourceApplication;  // the bundle id of the opening application
};

// A user activity the application continues (a universal link is a web-browsing activity).
struct QuorvelUserActivity {
  std::string activityType;               // kQuorvelUserActivityTypeBrowsingWeb for links
  std::optional<std::string> webpageURL;  // the page's URL for web-browsing activities
  std::string description() const;
};
inline constexpr const char* kQuorvelUserActivityTypeBrowsingWeb = "NSUserActivityTypeBrowsingWeb";

// Outcome callbacks of validateAndTrackInAppPurchase. `response` of a failure is the service's
// parsed answer, its raw bytes (a binary value), a message text, or null.
using QuorvelPurchaseSuccess = std::function<void(const Json& response)>;
using QuorvelPurchaseFailure =
    std::function<void(const std::optional<Error>& error, const Json& response)>;

// Receiver of attribution callbacks. Each callback is optional: an empty function means the
// delegate does not respond to it. The tracker holds the delegate weakly: a delegate that is
// gone is not called. None is called while the tracker holds a lock, so a callback may call
// the tracker back.
struct QuorvelTrackerDelegate {
  // Conversion (install attribution) data. Fresh from the service: on the shared URL
  // session's callback queue. From the stored copy: on the main queue, 1 ms after the launch.
  std::function<void(const Json& conversionData)> onConversionDataReceived;
  // Conversion data could not be loaded. A transport failure: on the main queue; a refusal or
  // an unreadable answer from the service: on the shared session's callback queue.
  std::function<void(const Error& error)> onConversionDataRequestFailure;
  // The app was opened through an attributed link (its parameters, or what the short-link
  // service resolved them to). On the main queue.
  std::function<void(const Json& attributionData)> onAppOpenAttribution;
};

// How setUserEmails hashes the e-mails in the payload.
// What became of the reports the host's calls made (launches, events, purchase reports), in
// this process and as found left by an earlier one: every accepted report is delivered,
// waiting, or dropped for one of the reasons counted.
struct QuorvelDeliveryStats {
  std::uint64_t accepted = 0;
  std::uint64_t delivered = 0;  // answered 2xx
  // In the outbox now: not yet answered. Kept-request files are counted apart.
  std::uint64_t waiting = 0;
  // Failed in transport and kept as files for the replay after the next answer.
  std::uint64_t keptAsFiles = 0;
  std::uint64_t droppedOverSize = 0;  // the oldest, past the outbox's byte bound
  std::uint64_t droppedOverAge = 0;   // past the age bound (outbox or kept-request files)
  std::uint64_t droppedByRule = 0;    // a launch too soon after the last, no developer key
  // Copies sent after one that may have reached the service (sent and never answered: its
  // process ended with it on the wire, or its transfer failed once the connection was made),
  // from the outbox or the kept-request folder: the only repeats, each marked as a replay.
  std::uint64_t repeated = 0;
  // Another process holds this app's data directory (the same app started twice): this
  // tracker keeps its reports on disk for that process to send (in memory when the disk
  // refuses them), and nothing of the directory's reports is its to send.
  bool dataDirectoryHeldElsewhere = false;
  // Added last, so that the fields before keep their places.
  // Answered 4xx (but 429): the service will never take them; not sent again.
  std::uint64_t refused = 0;
  // Answered 5xx or 429 and waiting to go again (they are among `waiting` too).
  std::uint64_t retrying = 0;
  // Reports whose record the disk refused (full, read-only): they went from memory, and were
  // lost if the process ended before their answer. Said once an episode in the log.
  std::uint64_t notKept = 0;
  // Records an earlier run left that could not be read back (a damaged file).
  std::uint64_t droppedUnreadable = 0;
};

enum class QuorvelEmailCryptType : int { none = 0, sha1 = 1, md5 = 2, sha256 = 3 };

class QuorvelTracker {
 public:
  // The process-wide tracker on the process's platform (installPlatform, or the POSIX
  // defaults), created on the first call (thread-safe) and never destroyed. At a normal exit
  // it flushes for exitFlushTimeout().
  static QuorvelTracker& sharedTracker() noexcept;

  // A tracker of its own on `platform`, for embedders that need more than one and for tests
  // (see Quorvel::testing). Its failed requests are kept in the platform's caches directory.
  // It logs to the platform's system log, and only its own setIsDebug/setIsTrace switch its
  // log (the shared tracker's switches are QVSetShowDebugLogs's).
  explicit QuorvelTracker(std::shared_ptr<const Platform> platform);
  ~QuorvelTracker();
  QuorvelTracker(const QuorvelTracker&) = delete;
  QuorvelTracker& operator=(const QuorvelTracker&) = delete;

  // --- Configuration -------------------------------------------------------------------
  std::optional<std::string> quorvelDevKey() const noexcept;
  void setQuorvelDevKey(std::optional<std::string> key) noexcept;
  std::optional<std::string> appleAppID() const noexcept;
  // Digits only; checked before every request, not here.
  void setAppleAppID(std::optional<std::string> appID) noexcept;
  std::optional<std::string> customerUserID() const noexcept;
  void setCustomerUserID(std::optional<std::string> customerUserID) noexcept;
  std::optional<Json> customData() const noexcept;
  // A nil dictionary is ignored: custom data, once set, can be replaced but not cleared.
  void setAdditionalData(std::optional<Json> customData) noexcept;
  // The user's e-mails and how the payload hashes them (an int outside 0-3 means SHA-1).
  void setUserEmails(const std::vector<std::string>& emails, QuorvelEmailCryptType type) noexcept;
  void setUserEmails(const std::vector<std::string>& emails, int cryptType) noexcept;
  // The same from decoded values; entries that are not strings are skipped with a warning.
  void setUserEmails(const Json& emails, int cryptType) noexcept;
  std::optional<std::string> currencyCode() const noexcept;
  void setCurrencyCode(std::optional<std::string> code) noexcept;
  bool isDebug() const noexcept;
  // Drives this tracker's console log.
  void setIsDebug(bool isDebug) noexcept;
  // Adds elapsed times to log lines and lets trace messages through (needs isDebug).
  void setIsTrace(bool isTrace) noexcept;
  bool shouldCollectDeviceName() const noexcept;
  void setShouldCollectDeviceName(bool flag) noexcept;
  bool disableAppleAdSupportTracking() const noexcept;
  void setDisableAppleAdSupportTracking(bool flag) noexcept;
  bool deviceTrackingDisabled() const noexcept;
  void setDeviceTrackingDisabled(bool flag) noexcept;
  bool disableIAdTracking() const noexcept;
  void setDisableIAdTracking(bool flag) noexcept;
  bool useReceiptValidationSandbox() const noexcept;
  void setUseReceiptValidationSandbox(bool flag) noexcept;
  bool useUninstallSandbox() const noexcept;
  void setUseUninstallSandbox(bool flag) noexcept;
  std::optional<std::string> appInviteHoplineID() const noexcept;
  void setAppInviteHopline(std::optional<std::string> hoplineID) noexcept;
  std::string advertiserId() const noexcept;
  void setAdvertiserId(std::string advertiserId) noexcept;
  // The service domain of every endpoint. nullopt restores the default domain.
  std::string host() const noexcept;
  void setHost(std::optional<std::string> host) noexcept;
  // Minimum seconds between two launch requests of one process.
  std::uint64_t minTimeBetweenSessions() const noexcept;
  void setMinTimeBetweenSessions(std::uint64_t seconds) noexcept;
  std::optional<std::chrono::system_clock::time_point> lastLaunchTime() const noexcept;
  std::shared_ptr<QuorvelTrackerDelegate> delegate() const noexcept;
  void setDelegate(std::weak_ptr<QuorvelTrackerDelegate> delegate) noexcept;

  // --- Information ---------------------------------------------------------------------
  // "version: 4.8.0 (build 597)".
  std::string getSDKVersion() const noexcept;
  // The installation's identifier; made and stored on first use.
  std::string getQuorvelUID() noexcept;
  // The info dictionary's value for `key`, or "" when there is none.
  Json getValueFromBundle(const std::string& key) const noexcept;
  // The host framework the application is built with ("iOS_Native", ...).
  std::string platfromDevName() const noexcept;
  // True when "en0" has a non-loopback IPv4 address.
  bool isWifiAvailable() const noexcept;
  // The platform this tracker runs on.
  const Platform& platform() const noexcept;

  // --- Launches and events --------------------------------------------------------------
  // Reports that the application became active. Call it on every activation; the launch is
  // sent 250 ms later unless one was sent within minTimeBetweenSessions seconds.
  void trackAppLaunch() noexcept;
  // Reports a named event with one value; a value of digits, "-" and "." counts as revenue.
  void trackEvent(const std::string& eventName, const std::optional<std::string>& value) noexcept;
  void trackEventWithValue(const std::string& eventName,
                           const std::optional<std::string>& value) noexcept;
  // Reports a named event with a dictionary of values (nullopt sends "null").
  void trackEventWithValues(const std::string& eventName,
                            const std::optional<Json>& values) noexcept;
  // Reports the device's location as the event "qv_location_coordinates". Longitude first.
  void trackLocation(double longitude, double latitude) noexcept;

  // --- Delivery ----------------------------------------------------------------------------
  // Waits until every report scheduled before the call (launches, events, purchases, the
  // background statistics, uninstall registrations, and what a launch's answer starts, such
  // as the conversion data for the delegate) has been answered by the service or written to
  // the offline cache, or until `timeout` passed. True when all of them settled. Pending
  // preference writes are made durable too. Called on a thread that turns one of the queues
  // this work needs (a delegate callback, the thread that drains a RunLoopQueue), it runs the
  // work due there while it waits.
  bool flush(std::chrono::milliseconds timeout) noexcept;
  // How long the shared tracker flushes when the process exits normally (return from main,
  // exit()): 2 s by default; zero or less opts out.
  std::chrono::milliseconds exitFlushTimeout() const noexcept;
  void setExitFlushTimeout(std::chrono::milliseconds timeout) noexcept;
  // What the shared tracker runs at exit: a flush within exitFlushTimeout(); what is still
  // unanswered then stays in the outbox, written to disk, and the next start sends it. True
  // when nothing was left unsettled.
  bool flushAtExit() noexcept;
  // The outbox keeps every accepted report on disk until it is answered, within these
  // bounds (16 MiB and 30 days by default); past them the oldest reports are dropped,
  // counted and logged. The age bound holds for kept-request files too.
  void setOutboxLimits(std::uint64_t maxBytes, std::chrono::seconds maxAge) noexcept;
  QuorvelDeliveryStats deliveryStats() const noexcept;

  // --- Consent ---------------------------------------------------------------------------
  // Stops the library, now and at every later start until setStopped(false): while stopped it
  // collects, builds, stores and sends nothing, and every call other than these two, the log
  // switches, flush, deliveryStats and the settings that say nothing about the user (key, app
  // id, host, delegate, switches) returns at once with one debug line; those settings apply
  // once it runs again. No answer that comes after the stop is applied. What was accepted
  // before the stop stays in the outbox and goes once the library runs again.
  void setStopped(bool stopped) noexcept;
  bool isStopped() const noexcept;
  // Stops, then removes everything the library keeps for this app: identifiers, counters,
  // kept requests, the outbox, conversion data, secure-store items, and what this process
  // holds of the user (customer user id, e-mails, custom data). The next launch after
  // setStopped(false), in this process or a later one, is a fresh install. Idempotent; a kill
  // during it is finished by the next start. False when something could not be removed now (logged;
  // the next start retries). Every process of the app on the data directory forgets too, within
  // a second of its next send or write; the outbox of the process that holds the directory is
  // emptied by that process.
  bool forgetThisInstall() noexcept;

  // --- Deep links and push payloads ----------------------------------------------------
  // The app was opened with a URL. The first link of a launch wins over later ones.
  void handleOpenURL(const std::string& url, const std::optional<std::string>& sourceApplication,
                     const std::optional<Json>& withAnnotation) noexcept;
  void handleOpenURL(const std::string& url,
                     const std::optional<std::string>& sourceApplication) noexcept;
  // The newer entry point: always replaces the link; the source application only when
  // options are given.
  void handleOpenUrl(const std::string& url,
                     const std::optional<QuorvelOpenURLOptions>& options) noexcept;
  // A universal link: web-browsing activities set the link. The restoration handler is never
  // called. Always true.
  bool continueUserActivity(const QuorvelUserActivity& userActivity,
                            const std::function<void(const Json&)>& restorationHandler) noexcept;
  void didUpdateUserActivity(const QuorvelUserActivity& userActivity) noexcept;
  // Keeps the notification's "qv" entry for the next launch (a payload without it clears).
  void handlePushNotification(const Json& pushPayload) noexcept;

  // --- Conversion data ------------------------------------------------------------------
  // Sets the delegate, then fetches the install's conversion data for it (see
  // QuorvelTrackerDelegate for the queues the answers arrive on).
  void loadConversionDataWithDelegate(std::weak_ptr<QuorvelTrackerDelegate> delegate) noexcept;
  // Delivers the conversion data to the delegate already set: from the stored copy or fetched
  // from the service. Returns at once.
  void getConversionData() noexcept;

  // --- Purchases ---------------------------------------------------------------------------
  // Reports a store purchase (to the validation endpoint) and has its receipt verified by the
  // service. `success` gets the verdict when it holds a "transaction_id"; `failure` gets every
  // other outcome. Both run on the network callback queue, never on the caller's thread.
  // Product identifier and transaction id are required; `additionalParameters` is ignored.
  // Without a developer key or an app id the purchase event is still sent (and dropped by
  // the dispatch's own checks), and `failure` receives an error of the domain
  // "com.quorvel.ErrorDomain" instead of a validation request being made.
  void validateAndTrackInAppPurchase(const std::optional<std::string>& productIdentifier,
                                     const std::optional<std::string>& price,
                                     const std::optional<std::string>& currency,
                                     const std::optional<std::string>& transactionId,
                                     const std::optional<Json>& additionalParameters,
                                     QuorvelPurchaseSuccess success,
                                     QuorvelPurchaseFailure failure) noexcept;

  // --- Uninstall measurement ---------------------------------------------------------------
  // Registers the push token once per distinct token (3.5 s later, on the serial queue).
  void registerUninstall(const Bytes& deviceToken) noexcept;

 private:
  friend TrackerCore& coreOf(QuorvelTracker& tracker) noexcept;
  QuorvelTracker(const std::shared_ptr<const Platform>& platform,
                 std::shared_ptr<LogSwitches> logSwitches);

  std::shared_ptr<TrackerCore> core_;
};

// The default service domain of every endpoint.
inline constexpr const char* kQuorvelDefaultHost = "quorvel.io";

}  // namespace quorvel

#pragma GCC visibility pop
