// TrackerCore: everything the tracker is and does. QuorvelTracker, the public facade, holds
// one and forwards the host's calls to it; the library's own parts and its tests use it
// directly. Every member may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <quorvel/Error.h>
#include <quorvel/Json.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>
#include <quorvel/platform/URLSession.h>

#include "cache/Outbox.h"
#include "net/ReportLedger.h"
#include "platform/ConsentGate.h"
#include "platform/ForkGeneration.h"
#include "tracker/IntakeCall.h"
#include "util/MpscQueue.h"

namespace quorvel {

class QuorvelAES128Crypto;
class Log;
class LogSwitches;
class QuorvelProxyManager;
class QuorvelKeychainWrapper;
class QVDateFormatter;
class QVSDKiAdClient;
class QuorvelHTTPClient;
class QuorvelRequestCache;
class QuorvelRequestCacheData;
class QuorvelDictionary;
class TrackerLifetime;
class InstallEpoch;

class TrackerCore {
 public:
  // Builds a tracker on `platform`. For tests and embedders that need their own graph;
  // hosts use sharedTracker().
  // `cache` holds this tracker's failed requests; nullptr gives the tracker a cache of its own
  // in the platform's caches directory.
  // The tracker and what it is made of: its cache (nullptr: one of its own in the platform's
  // caches directory, replaying through this tracker), HTTP client, ledger, keychain and
  // Search Ads client. `remoteDebugging` is the log collection the service may switch on.
  // `logSwitches`: the switches of the tracker's logger; its own (all off) when nullptr.
  // A tracker with a remote-debugging collection of its own, kept as long as the tracker.
  static std::shared_ptr<TrackerCore> withOwnRemoteDebugging(
      const std::shared_ptr<const Platform>& platform, std::shared_ptr<LogSwitches> logSwitches);
  TrackerCore(std::shared_ptr<const Platform> platform, QuorvelProxyManager& remoteDebugging,
              std::shared_ptr<QuorvelRequestCache> cache = nullptr,
              std::shared_ptr<LogSwitches> logSwitches = nullptr);
  ~TrackerCore();
  TrackerCore(const TrackerCore&) = delete;
  TrackerCore& operator=(const TrackerCore&) = delete;

  // --- Configuration -------------------------------------------------------------------
  std::optional<std::string> quorvelDevKey() const;
  // Stores the key and makes a new payload cipher for it (also for the same key).
  void setQuorvelDevKey(std::optional<std::string> key);

  std::optional<std::string> appleAppID() const;
  // Digits only; checked before every request, not here.
  void setAppleAppID(std::optional<std::string> appID);

  std::optional<std::string> customerUserID() const;
  void setCustomerUserID(std::optional<std::string> customerUserID);

  std::optional<Json> customData() const;
  // A nil dictionary is ignored: custom data, once set, can be replaced but not cleared.
  void setAdditionalData(std::optional<Json> customData);
  // What the C API's NULL asks for: custom data no longer sent (the C++ setter ignores nil).
  void clearAdditionalData();

  // Stores the user's e-mails and how the payload hashes them: 0 plain, 1 SHA-1, 2 MD5,
  // 3 SHA-256 (any other value: SHA-1).
  void setUserEmails(const std::vector<std::string>& emails, int cryptType);
  // The same from decoded values; entries that are not strings are skipped with a warning
  // when the payload is built.
  void setUserEmails(const Json& emails, int cryptType);

  std::optional<std::string> currencyCode() const;
  void setCurrencyCode(std::optional<std::string> code);

  bool isDebug() const;
  // Drives the console logger.
  void setIsDebug(bool isDebug);
  // Adds elapsed times to log lines and lets trace messages through (needs isDebug).
  void setIsTrace(bool isTrace);

  bool shouldCollectDeviceName() const;
  void setShouldCollectDeviceName(bool flag);

  bool disableAppleAdSupportTracking() const;
  void setDisableAppleAdSupportTracking(bool flag);
  bool deviceTrackingDisabled() const;
  void setDeviceTrackingDisabled(bool flag);
  bool disableIAdTracking() const;
  void setDisableIAdTracking(bool flag);

  bool useReceiptValidationSandbox() const;
  void setUseReceiptValidationSandbox(bool flag);
  bool useUninstallSandbox() const;
  void setUseUninstallSandbox(bool flag);

  std::optional<std::string> appInviteHoplineID() const;
  void setAppInviteHopline(std::optional<std::string> hoplineID);

  std::string advertiserId() const;
  void setAdvertiserId(std::string advertiserId);

  // The service domain of every endpoint. nullopt restores the default domain.
  std::string host() const;
  void setHost(std::optional<std::string> host);

  // Minimum seconds between two launch requests of one process.
  std::uint64_t minTimeBetweenSessions() const;
  void setMinTimeBetweenSessions(std::uint64_t seconds);

  std::optional<std::chrono::system_clock::time_point> lastLaunchTime() const;

  std::shared_ptr<QuorvelTrackerDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QuorvelTrackerDelegate> delegate);

  // --- Information ---------------------------------------------------------------------
  // "version: 4.8.0 (build 597)".
  std::string getSDKVersion() const;
  // The info dictionary's value for `key`, or "" when there is none.
  Json getValueFromBundle(const std::string& key) const;
  // The host framework the application is built with ("iOS_Native", ...).
  std::string platfromDevName() const;

  // --- Launches and events --------------------------------------------------------------
  // Reports that the application became active. Call it on every activation; the launch is
  // sent 250 ms later unless one was sent within minTimeBetweenSessions seconds.
  void trackAppLaunch();
  // Reports a named event with one value; a value of digits, "-" and "." counts as revenue.
  void trackEvent(const std::string& eventName, const std::optional<std::string>& value);
  void trackEventWithValue(const std::string& eventName, const std::optional<std::string>& value) {
    trackEvent(eventName, value);
  }
  // Reports a named event with a dictionary of values (nullopt sends "null").
  void trackEventWithValues(const std::string& eventName, const std::optional<Json>& values);
  // Reports the device's location as the event "qv_location_coordinates". Longitude first.
  void trackLocation(double longitude, double latitude);

  // --- Delivery (as QuorvelTracker documents it) ------------------------------------
  bool flush(std::chrono::milliseconds timeout) noexcept;
  // A flush that also says whether the reports waiting when it began were delivered: each
  // answered by the service or kept for the process that holds the data directory, none still
  // waiting for a later send nor handed to the kept-request folder. Reports accepted during
  // the flush (other threads go on tracking) are not judged.
  enum class FlushOutcome { delivered, notDelivered, timedOut };
  FlushOutcome flushReports(std::chrono::milliseconds timeout) noexcept;
  std::chrono::milliseconds exitFlushTimeout() const;
  void setExitFlushTimeout(std::chrono::milliseconds timeout);
  // What is unanswered at exit stays in the outbox, written and synced.
  bool flushAtExit() noexcept;
  // At the exit of a process whose host never ended this tracker: what it accepted is written
  // and synced, with no send and no call into the host, whose state may be gone by then.
  void keepAtExit() noexcept;
  void setOutboxLimits(std::uint64_t maxBytes, std::chrono::seconds maxAge);
  QuorvelDeliveryStats deliveryStats();
  std::shared_ptr<Outbox> outbox() const { return outbox_; }

  // --- Deep links and push payloads ----------------------------------------------------
  // The app was opened with a URL. The first link of a launch wins over later ones.
  void handleOpenURL(const std::string& url, const std::optional<std::string>& sourceApplication,
                     const std::optional<Json>& withAnnotation);
  void handleOpenURL(const std::string& url, const std::optional<std::string>& sourceApplication);
  // The newer entry point: always replaces the link; the source application only when
  // options are given.
  void handleOpenUrl(const std::string& url, const std::optional<QuorvelOpenURLOptions>& options);
  // A universal link: web-browsing activities set the link. The restoration handler is never
  // called. Always true.
  bool continueUserActivity(const QuorvelUserActivity& userActivity,
                            const std::function<void(const Json&)>& restorationHandler);
  void didUpdateUserActivity(const QuorvelUserActivity& userActivity);
  // Keeps the notification's "qv" entry for the next launch (a payload without it clears).
  void handlePushNotification(const Json& pushPayload);

  // --- Purchases ---------------------------------------------------------------------------
  // As QuorvelTracker documents it.
  void validateAndTrackInAppPurchase(const std::optional<std::string>& productIdentifier,
                                     const std::optional<std::string>& price,
                                     const std::optional<std::string>& currency,
                                     const std::optional<std::string>& transactionId,
                                     const std::optional<Json>& additionalParameters,
                                     QuorvelPurchaseSuccess success,
                                     QuorvelPurchaseFailure failure);
  void validatePurchaseEvent(const std::optional<std::string>& productIdentifier,
                             const std::optional<std::string>& price,
                             const std::optional<std::string>& currency,
                             const std::optional<std::string>& transactionId,
                             const Json& receiptData, platform::ConsentGate::Generation consent);
  std::shared_ptr<platform::URLSessionTask> validateRequest() const;

  // --- Uninstall measurement ---------------------------------------------------------------
  // Registers the push token once per distinct token (3.5 s later, on the serial queue).
  void registerUninstall(const Bytes& deviceToken);
  void backgroundRegisterUninstall(const std::string& deviceToken);
  // "<0a1b2c3d 4e5f6071>": lower-case hex, a blank after every four bytes.
  static std::string deviceTokenText(const Bytes& deviceToken);
  // For sessions that name the tracker as their download delegate: logs the outcome.
  void didFinishDownloadingToPath(platform::URLSessionTask& task, const std::string& path);

  // --- Lifecycle -------------------------------------------------------------------------
  // Unsubscribes the tracker from the application notifications (will-terminate).
  void removeNotificationObserver(const platform::Notification& notification);
  // Reads the launch options of the did-finish-launching notification: the source
  // application and the URL the app was opened with.
  void handleDidFinishLaunch(const platform::Notification& notification);
  // The app went to the background: counts the session, sends the statistics request.
  void handleEnteredBackground();
  void backgroundstatCall();
  // Sends the launch unless the previous one of this process is too recent (serial queue).
  void sendLaunchToServer();

  // The tracker's own answers to conversion data; they only log.
  void onConversionDataReceived(const Json& installData);
  void onConversionDataRequestFailure(const Error& error);

  // The installation's identifier; made and stored on first use.
  std::string getQuorvelUID();

  // --- Counters, dates and identity (used while building requests; not for hosts) ------
  // The launch count, raised first when `increase`.
  int getCounter(bool increase);
  // The in-app event count, raised first when `increase`.
  int getInAppCounter(bool increase);
  int counterFloorLocked(const char* key, int known);
  // Moves to the background so far, plus the session in progress.
  int getRealLaunchCounter();
  void incrementRealLaunchCounter();
  std::string getFirstLanuchDate(const QVDateFormatter& formatter);
  // nullopt when the Library directory's creation date cannot be read.
  std::optional<std::string> getInstallDate(const QVDateFormatter& formatter);
  // The creation date of the application's Library directory, read afresh.
  std::optional<std::chrono::system_clock::time_point> installDate() const;
  // The temporary directory's modification date ("date2"): it changes while the process runs,
  // so it is read again, but at most once a second by the clock, not for every report.
  std::optional<std::chrono::system_clock::time_point> temporaryDirectoryDate() const;
  std::optional<std::string> getVersionUpdateDate(
      const std::optional<std::string>& version,
      const std::optional<std::string>& currentUpdateDate);
  // Seconds since the previous launch payload, or -1; records now for the next one.
  double getTimePassedSinceLastLaunch();
  std::string generateQuorvelId() const;
  void setOriginalQuorvelIdToKeychainIfNeeded(const std::string& uid);
  std::string getOriginalQuorvelId();
  // Reads the identifier kept in the secure store; true when there is one (and then raises
  // the reinstall counter).
  bool getKeychainData();
  // True when "en0" has a non-loopback IPv4 address.
  bool isWifiAvailable() const;

  // --- The payload of launches and events (not for hosts) -----------------------------
  // Builds the flat description of install, device, app and moment that every launch and
  // event request carries; on launches it also consumes the pending deep link and push
  // payload.
  QuorvelDictionary getEventParameters(bool isLaunch);
  // Adds the invite link template and the link service version.
  void addHopline(QuorvelDictionary& parameters);
  bool permitAggregateiAdData() const { return permitAggregateiAdData_; }
  void setPermitAggregateiAdData(bool permit) { permitAggregateiAdData_ = permit; }
  void setDeeplink(std::optional<std::string> url);
  void setSourceApplication(std::optional<std::string> application);
  std::optional<Json> pushPayload() const;
  void setPushPayload(std::optional<Json> payload);

  // --- Conversion data ------------------------------------------------------------------
  // Sets the delegate, then fetches the install's conversion data for it.
  void loadConversionDataWithDelegate(std::weak_ptr<QuorvelTrackerDelegate> delegate);
  // Delivers the conversion data to the delegate: from the stored copy (on the main queue)
  // or fetched from the service. Returns at once.
  void getConversionData();

  // --- Dispatch (not for hosts) -------------------------------------------------------
  void callServerWithEventName(const std::string& name);
  void callServerWithEventName(const std::string& name, const std::optional<std::string>& value,
                               bool isInAppEvent, bool isIAd);
  // `dictionary` is accepted and ignored: event values travel in `value`.
  void callServerWithEventName(const std::string& name, const std::optional<std::string>& value,
                               const std::optional<Json>& dictionary, bool isEvent, bool isIAd);
  void validateAppID() const;
  Bytes encryptData(const QuorvelDictionary& parameters) const;

  // Uploads a remote-debugging document to the service's debugging endpoint.
  void remoteDebuggingCallWithData(const std::string& data);
  // Hands the collected log, with who this installation is, to remoteDebuggingCallWithData.
  void sendRemoteDebuggingData();

  // --- Internal collaborators (not for hosts) -----------------------------------------
  std::shared_ptr<QuorvelHTTPClient> httpClient() const { return httpClient_; }
  QuorvelProxyManager& remoteDebugging() const { return remoteDebugging_; }
  std::shared_ptr<QuorvelRequestCache> requestCache() const { return requestCache_; }
  // Follows the reports that flush() waits for.
  std::shared_ptr<ReportLedger> reportLedger() const { return ledger_; }
  // Hands a cached request to the HTTP client unchanged, marked as coming from the cache.
  void sendRequestFromCache(const QuorvelRequestCacheData& request);
  std::shared_ptr<QuorvelKeychainWrapper> keychain();
  std::shared_ptr<const QVSDKiAdClient> iAdClient() const { return iAdClient_; }
  const Platform& platform() const { return *platform_; }
  // The tracker's logger, which its collaborators were given.
  const Log& logger() const { return *log_; }
  // True in a child made by fork() after this tracker: its calls then do nothing.
  bool inertAfterFork() const noexcept { return platform::forkGeneration() != forkGeneration_; }
  // The host's consent switch, kept in the preferences (read once, at the first question).
  bool isStopped() const;
  void setStopped(bool stopped);
  // What sends and answers check: a stop or a forgetting raises its generation.
  const platform::ConsentGate& consent() const { return *consent_; }
  // Stops, then removes every identifier, counter, kept request, outbox record, conversion
  // datum and secure-store item of this app. False when some of it is left for the next
  // start to finish.
  bool forgetThisInstall();
  std::shared_ptr<const Log> log() const { return log_; }
  std::shared_ptr<const QuorvelAES128Crypto> crypto() const;
  std::shared_ptr<platform::DispatchQueue> backgroundQueue() const { return mBackgroundQueue_; }
  std::optional<std::string> deeplink() const;
  std::optional<std::string> sourceApplication() const;

 private:
  std::string forgetMarkerPath() const;
  // A file whose presence says that the library is stopped, for the other processes on the
  // same data directory, which read their preferences only at start.
  static std::string stopMarkerPath(const Platform& platform);
  static constexpr std::string_view kStopMarkerName = "QuorvelStopped";
  // What the stop marker holds: a stop, or a forgetting, which the other processes carry out
  // too (on what they hold in memory, and the holder of the data directory on its outbox).
  static constexpr std::uint8_t kStoppedMark = '1';
  static constexpr std::uint8_t kForgottenMark = 'f';
  // Another process stopped the library: if it forgot the install, this one forgets too.
  void forgetIfForgottenElsewhere();
  void forgetIfForgottenElsewhereLocked();  // under optInMutex_
  // Under optInMutex_, after a stop settled outside it: an opt-in that came in between is
  // undone (rare, and only then is the settling done under the lock).
  void stopAgainIfOptedInMeanwhile();
  void finishForgettingIfStarted();
  // Writes the epoch the forgetting's marker holds, unless the disk has it already.
  void renewEpochAsMarked();
  // `everyGuestFile`: the forgetting began here (or is finished for a killed process), so that
  // every file other processes kept for the holder is the old install's and goes.
  bool eraseInstall(bool everyGuestFile);
  // The install's state this process holds in memory: what the host set about the user, the
  // counters' floors, the link and push payload waiting for a launch.
  void forgetInMemory();
  // Another process forgot the install and the user consented again (or the library was
  // stopped plainly, `stoppedSince`) before this one looked: what it holds of the old install
  // goes; the files are the new install's.
  void forgetOldInstallHeldHere(bool stoppedSince);
  bool waitSettledTurningOwnQueues(std::uint64_t mark, std::chrono::milliseconds timeout);
  // Runs the work due on the queues a waiting flush may be the one to turn.
  void turnOwnQueues();
  const std::uint64_t forkGeneration_ = platform::forkGeneration();
  template <typename T>
  T read(const T& field) const {
    std::lock_guard lock(fieldsMutex_);
    return field;
  }
  template <typename T, typename V>
  void write(T& field, V&& value) {
    std::lock_guard lock(fieldsMutex_);
    field = std::forward<V>(value);
  }
  void subscribeToLifecycleNotifications();
  void unsubscribeFromLifecycleNotifications();
  void deepLinkStep(QuorvelDictionary& parameters);
  void pushPayloadStep(QuorvelDictionary& parameters);
  void advertisingIdentifierStep(QuorvelDictionary& parameters);
  void emailStep(QuorvelDictionary& parameters);
  void deliverAppOpenAttribution(const Json& attribution,
                                 platform::ConsentGate::Generation consent);
  // Preference writes: a launch's values are written before its request leaves; the others
  // are group-committed on the serial queue within 100 ms, at the move to the background, at
  // flush and at exit.
  void persistPreferencesSoon();
  void persistPreferencesNow();
  // Sends a launch once its counters are on disk, trying the write again while they are not.
  void sendLaunchOnceDurable(QuorvelRequestCacheData record, std::function<void()> answered,
                             int attempt = 0);
  // A host's call accepted a report: into the outbox with the call's time, on a new ticket.
  ReportLedger::TicketPtr acceptReport(OutboxIntent intent, platform::TimePoint at);
  ReportLedger::TicketPtr acceptReport(OutboxIntent intent);
  // Events come in through the intake: the host's thread only pushes its call there (no lock
  // that a library thread holds, no wake-up of one per call), and the serial queue accepts
  // what it finds, in order. Whoever reads the ledger or the outbox takes the intake first.
  void takeIntake(IntakeCall call);
  // The platform's time, read directly when the platform's clock is the system's.
  platform::TimePoint callTime() const noexcept;
  // Takes every call now, on the caller's thread; the watch goes on as it was.
  void acceptIntake();
  // False when calls are left.
  bool acceptIntakeLocked(std::size_t most = SIZE_MAX);
  // The outbox's queue watches the intake: a turn takes what is there, and while calls came
  // lately it looks again, so that a host's call made meanwhile is taken without waking
  // anything. The looks come kIntakePoll after a turn that took calls, then twice as far
  // apart up to kIntakePollMost: a burst is taken at once, and an app's lone calls cost a
  // few looks each instead of one every kIntakePoll. Once no call came for kIntakeLinger the
  // watch ends and the next call wakes the queue again.
  void scheduleIntakeTurn(std::chrono::nanoseconds after = std::chrono::nanoseconds::zero());
  void intakeTurn();
  static constexpr std::size_t kIntakeTurn = 512;
  static constexpr std::chrono::milliseconds kIntakePoll{2};
  // The longest a call waits for a look: with the outbox's batch window and the write, well
  // within the 10 ms in which it reaches the disk.
  static constexpr std::chrono::milliseconds kIntakePollMost{6};
  // Calls of an app in use come closer together than this; an idle app pays no look after it.
  static constexpr std::chrono::milliseconds kIntakeLinger{1000};
  void scheduleIntake(const IntakeCall& call);
  // The first tracking call of the process sends what an earlier one left unanswered.
  // Once the host gave a developer key and an app id: what an earlier run left goes within a
  // second, whether or not a tracking call comes.
  void scheduleOutboxResume();
  void resumeOutboxOnce();
  void rebuildLeftovers(std::vector<Outbox::Leftover> leftovers);
  // The report whose work runs now leaves the outbox unsent (a rule decided so).
  void dropCurrentReport();
  // Builds an event with a dictionary of values (the host's call or an outbox leftover).
  void buildEventWithValues(const std::string& eventName, const std::optional<Json>& values);
  void handleConversionDataAnswer(const std::optional<Bytes>& body,
                                  const std::optional<platform::URLResponse>& response,
                                  const std::optional<Error>& error, platform::TimePoint start,
                                  platform::ConsentGate::Generation generation);

  // The host's platform, but for the preferences and the secure store: those drop what the
  // library's work writes once a stop returned (see ConsentedStores.h).
  std::shared_ptr<const Platform> platform_;
  QuorvelProxyManager& remoteDebugging_;
  std::shared_ptr<InstallEpoch> installEpoch_;
  std::shared_ptr<platform::ConsentGate> consent_;
  // The host's own preferences, which the switch and the forgetting write while stopped.
  std::shared_ptr<platform::PreferencesStore> switchPreferences_;
  std::shared_ptr<QuorvelProxyManager> ownRemoteDebugging_;  // null: the process's
  std::shared_ptr<const Log> log_;

  // Plain switches: single words, read and written without a lock.
  std::atomic<bool> isDebug_{false};
  std::atomic<bool> permitAggregateiAdData_{false};
  std::atomic<bool> useReceiptValidationSandbox_{false};
  std::atomic<bool> useUninstallSandbox_{false};
  std::atomic<bool> disableAppleAdSupportTracking_{false};
  std::atomic<bool> shouldCollectDeviceName_{true};
  std::atomic<bool> deviceTrackingDisabled_{false};
  std::atomic<bool> disableIAdTracking_{false};
  std::atomic<std::uint64_t> minTimeBetweenSessions_{5};

  // The tracker's monitor: custom data and e-mails are read and written under it.
  mutable std::mutex monitor_;
  std::optional<Json> customData_;
  std::optional<std::vector<Json>> userEmails_;
  int emailCryptType_ = 0;

  // Reference fields. The lock is held only to copy a value in or out, never across a
  // call, so that a host setter racing a background read is safe.
  mutable std::mutex fieldsMutex_;
  std::optional<std::string> deeplink_;
  std::optional<std::string> sourceApplication_;
  std::weak_ptr<QuorvelTrackerDelegate> delegate_;
  std::string platfromDevName_;
  std::optional<Json> pushPayload_;
  std::string advertiserId_;
  std::string host_;
  std::shared_ptr<const QuorvelAES128Crypto> crypto_;
  std::optional<std::string> customerUserID_;
  std::optional<std::string> quorvelDevKey_;
  std::optional<std::string> appleAppID_;
  std::optional<std::string> currencyCode_;
  std::optional<std::string> appInviteHoplineID_;
  std::optional<std::chrono::system_clock::time_point> lastLaunchTime_;
  struct TimedDate {
    std::chrono::system_clock::time_point readAt;
    std::optional<std::chrono::system_clock::time_point> date;
  };
  mutable std::optional<TimedDate> temporaryDirectoryDate_;
  std::shared_ptr<platform::URLSessionTask> validateRequest_;

  std::shared_ptr<QuorvelKeychainWrapper> keychain_;

  std::shared_ptr<platform::DispatchQueue> mBackgroundQueue_;
  std::shared_ptr<platform::DispatchQueue> outboxQueue_;
  std::shared_ptr<const QVSDKiAdClient> iAdClient_;
  std::shared_ptr<QuorvelRequestCache> requestCache_;
  std::shared_ptr<QuorvelHTTPClient> httpClient_;
  std::shared_ptr<ReportLedger> ledger_;
  std::shared_ptr<Outbox> outbox_;
  std::atomic<bool> outboxResumed_{false};
  std::atomic<bool> outboxResumeScheduled_{false};
  // Room for a burst of 8,192 calls between two turns of the serial queue (about 1 MB of
  // address space, in memory only as far as bursts reached); a longer one goes on in
  // allocated nodes.
  MpscQueue<IntakeCall> intake_{8192};
  std::mutex intakeConsumer_;  // one thread at a time takes the intake
  // Set while a turn of the outbox's queue is on its way to look at the intake: a host's call
  // then only pushes. Raised by the host's call that finds it clear, cleared by the turn that
  // ends the watch, which looks at the intake once more afterwards (both sides seq_cst: a
  // call pushed as the watch ends sees it clear, or the last look sees the call).
  // On a line of their own: every host's call reads them, and the turns write their fields
  // (and lock theirs) every few milliseconds.
  alignas(64) std::atomic<bool> intakeWatched_{false};
  const bool systemClock_;  // the platform's clock is the system's: a call reads it directly
  alignas(64) platform::TimePoint intakeLastCall_{};  // the turns' own: when they last took a call
  std::chrono::nanoseconds intakeLookGap_{kIntakePoll};  // the turns' own: until the next look
  // Reports are built on more than one queue; a counter is read, raised and written as one
  // step. The outbox's floor is read once: from then on the preferences in memory are above it.
  std::mutex countersMutex_;
  std::map<std::string, int, std::less<>> counterFloors_;
  std::set<std::string, std::less<>> unkeptReachTaken_;
  std::atomic<bool> preferencesWriteScheduled_{false};
  std::atomic<bool> launchWaitLogged_{false};  // once per episode of a launch that cannot go
  std::atomic<std::int64_t> exitFlushMs_{2000};
  // The application notifications the tracker follows; destroying them waits out a handler
  // running on another thread. Swapped out under the lock, destroyed outside it.
  std::mutex subscriptionsMutex_;
  // A forgetting (this process's own or one carried out for another) and an opt-in here never
  // interleave: the one erases only while the library is still stopped, and the switch a start
  // runs by is the one it stored. Recursive: a forgetting that cannot begin stops through
  // setStopped(). A stop settles before taking it: work inside the gate may wait for it.
  std::recursive_mutex optInMutex_;
  std::mutex uidMutex_;  // the identifier is read, made and stored as one step
  // This process forgot the install: the "forgotten" stop marker it sees then is its own.
  std::atomic<bool> forgottenHere_{false};
  // While it forgets: its own markers, seen by its folder watch, start no second erasing.
  std::atomic<bool> forgettingHere_{false};
  std::vector<platform::NotificationSubscription> lifecycleSubscriptions_;
  // What queued work and completions hold instead of the tracker (see TrackerLifetime).
  std::shared_ptr<TrackerLifetime> self_;
};

// The tracker behind a facade (the link helpers and the library's tests use it).
TrackerCore& coreOf(QuorvelTracker& tracker) noexcept;

// The stored conversion data's lifetime, in seconds (60 days).
extern const std::int64_t k60Days;
// Rejected conversion-data requests after which no more are made.
extern const std::int64_t kNumberOfConversionDataRequestsTreshhold;

}  // namespace quorvel
