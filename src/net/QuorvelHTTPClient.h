// QuorvelHTTPClient: puts the tracker's requests on the wire.
//
// Tracking requests go through the shared session; those that fail in transport go to the
// request cache, and any server answer starts the replay of what the cache holds. Small text
// bodies go fire-and-forget through a background session.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <quorvel/Error.h>
#include <quorvel/Json.h>
#include <quorvel/Platform.h>

#include "cache/Outbox.h"
#include "cache/QuorvelRequestCache.h"
#include "log/Log.h"
#include "log/QuorvelProxyManager.h"
#include "net/ReportLedger.h"
#include "platform/ConsentGate.h"
#include "util/PercentEscape.h"

namespace quorvel {

class QuorvelHTTPClient final : public platform::URLSessionDownloadDelegate,
                                public std::enable_shared_from_this<QuorvelHTTPClient> {
 public:
  using HoplineCompletion =
      std::function<void(const std::optional<Json>&, const std::optional<Error>&)>;
  using CreateHoplineCompletion =
      std::function<void(const std::optional<std::string>&, const std::optional<Error>&)>;

  static constexpr const char* kBackgroundSessionIdentifier = "com.quorvel.sdk";

  // Makes the client and, on OS versions that have one, its background session. With a
  // ledger, every request the client makes belongs to a report (the current one, or one of
  // its own), so that a flush waits for it.
  // `remoteDebugging` is switched by the tracking answers' "monitor" value.
  // With an outbox, every fresh tracking request is in it from before it leaves until its
  // answer (or until the offline cache took it after a transport failure).
  static std::shared_ptr<QuorvelHTTPClient> create(std::shared_ptr<const Platform> platform,
                                                   QuorvelProxyManager& remoteDebugging,
                                                   std::shared_ptr<const Log> log,
                                                   std::shared_ptr<QuorvelRequestCache> cache,
                                                   std::shared_ptr<ReportLedger> ledger = nullptr,
                                                   std::shared_ptr<Outbox> outbox = nullptr);

  QuorvelHTTPClient(std::shared_ptr<const Platform> platform, QuorvelProxyManager& remoteDebugging,
                    std::shared_ptr<const Log> log, std::shared_ptr<QuorvelRequestCache> cache,
                    std::shared_ptr<ReportLedger> ledger = nullptr,
                    std::shared_ptr<Outbox> outbox = nullptr);

  // A background session on OS 8 and later; none below 8.
  std::shared_ptr<platform::URLSession> buildSessionWithConfiguration();
  std::shared_ptr<platform::URLSession> bgSession() const { return bgSession_; }

  // Posts an encrypted tracking request. Returns at once. A record moved in is sent without a
  // copy.
  void sendRequestEventToServer(QuorvelRequestCacheData request, bool isRequestFromCache,
                                const std::optional<std::string>& appID, bool isDebug,
                                std::function<void()> onSuccess);
  // Sends again a report that waited in the outbox, marked on the wire as a kept request is
  // ("timeincache", "isCachedRequest=true"). Its answer removes it; a transport failure
  // leaves it there for the next try.
  void sendOutboxRequest(const OutboxSlotPtr& slot, const QuorvelRequestCacheData& request,
                         double secondsWaiting);
  // Posts a small text body whose outcome is only logged.
  void sendRequestWithConfiguration(const std::string& url, const std::string& data);
  void backgroundCallWithRequest(platform::URLRequest request,
                                 platform::ConsentGate::Generation consent);

  std::shared_ptr<platform::URLSessionTask> getHopline(const std::string& url,
                                                       const std::string& devKey,
                                                       HoplineCompletion completionHandler);
  std::shared_ptr<platform::URLSessionTask> createHopline(
      const std::string& url, std::int64_t ttl, const std::string& devKey, const Json& parameters,
      CreateHoplineCompletion completionHandler);
  using ValidateCompletion =
      std::function<void(const std::optional<Error>&, const std::optional<Bytes>&)>;
  // Posts a purchase receipt for validation; nullptr (and no completion ever) when the
  // request dictionary has no "data".
  std::shared_ptr<platform::URLSessionTask> sendValidateRequest(const Json& request,
                                                                ValidateCompletion complitionBlock);

  // Keeps the link service's settings that a tracking answer carries.
  void handleHoplineResponse(const Json& response);

  // Background session delegate.
  void didFinishDownloadingToPath(platform::URLSessionTask& task, const std::string& path) override;
  void didCompleteWithError(platform::URLSessionTask& task,
                            const std::optional<Error>& error) override;

  std::string description() const;
  // The request's "qv-timestamp" and "authorization" values for `devKey` at `now`.
  static std::pair<std::string, std::string> signature(const std::string& devKey,
                                                       platform::TimePoint now);

  // While the library is stopped, tracking requests fail at once, without a connection: what
  // was already under way when the host stopped it goes no further than the outbox. An answer
  // that comes after a stop or a forgetting is not applied: nothing of it is stored or cached,
  // and it starts nothing.
  void setConsent(std::shared_ptr<const platform::ConsentGate> consent) {
    consent_ = std::move(consent);
  }
  // After a stop: the requests under way are cancelled, and the reports of the tracking ones
  // wait in the outbox as unanswered, so that one still waiting in the session for a
  // connection never leaves after the stop returned.
  void cancelRequestsUnderWay();
  // Starts a request that carries no tracking report (conversion data, a link, a receipt)
  // unless the library is stopped, and keeps it among those a stop cancels, so that none
  // leaves once the stop returned. `onCancelled` runs instead of the completion when the
  // request is refused here or cancelled by a stop (posted to the session's queue, never run
  // inside either call); nullptr when refused. `since`: the consent generation the request's
  // contents were read under (a uid read before a forgetting never leaves after it).
  std::shared_ptr<platform::URLSessionTask> startUnlessStopped(
      platform::URLSession& session, platform::URLRequest request,
      platform::DataTaskCompletion completion, std::function<void()> onCancelled = nullptr,
      std::optional<platform::ConsentGate::Generation> since = std::nullopt);

 private:
  // False while another process holds the data directory: its folder is that process's.
  bool ownsKeptFolder() const;
  // Where a tracking request comes from: a fresh report, the kept-request folder, the outbox.
  enum class Origin { fresh, cache, outbox };
  // The record is shared by the request's completion and its cancellation, not copied.
  using SharedRecord = std::shared_ptr<const QuorvelRequestCacheData>;
  void post(SharedRecord record, std::string url, Origin origin, OutboxSlotPtr slot,
            std::function<void()> onSuccess, ReportLedger::TicketPtr ticket);
  bool stopped() const { return consent_ && consent_->stopped(); }
  platform::ConsentGate::Generation consentGeneration() const {
    return consent_ ? consent_->generation() : 0;
  }
  bool consentHolds(platform::ConsentGate::Generation start) const {
    return !consent_ || consent_->holds(start);
  }
  // An answer that came after the consent changed: the outbox alone learns of it. Unanswered,
  // `mayHaveLeft` says whether the copy had been handed over.
  void settleAfterConsentChanged(const OutboxSlotPtr& slot, bool answered, long status,
                                 bool mayHaveLeft = true);
  // A copy that repeats one that may have reached the service (a kept file too) is counted, by
  // the outbox, when it goes to the transport, and withdrawn when its outcome shows it never left.
  void noteRepeat(bool withdrawn) const noexcept;
  // True when the service answered: the caller runs what follows an answer, outside any hold.
  bool handleTrackingAnswer(const QuorvelRequestCacheData& request, Origin origin,
                            const OutboxSlotPtr& slot, const std::optional<Bytes>& body,
                            const std::optional<platform::URLResponse>& response,
                            const std::optional<Error>& error);
  void applyTrackingAnswer(const std::optional<Bytes>& body);
  // The requests started and not yet answered, with the outbox slots of the tracking ones.
  struct UnderWay {
    std::weak_ptr<platform::URLSessionTask> task;
    OutboxSlotPtr slot;
    std::function<void()> onCancelled;  // set for requests that carry no report
    // Set for a kept file's replay; told whether the cancelled copy had been handed over.
    std::function<void(bool mayHaveLeft)> replayCancelled;
    Origin origin = Origin::fresh;
    bool repeat = false;  // an earlier copy may have reached the service
  };
  void addUnderWay(std::uint64_t id, UnderWay underWay);
  // False when it was cancelled (and settled) already.
  bool removeUnderWay(std::uint64_t id);

  ReportLedger::TicketPtr reportOfNewRequest() const;

  std::shared_ptr<const Platform> platform_;
  QuorvelProxyManager& remoteDebugging_;
  std::shared_ptr<const platform::ConsentGate> consent_;
  std::shared_ptr<const Log> log_;
  std::shared_ptr<QuorvelRequestCache> cache_;
  std::shared_ptr<ReportLedger> ledger_;
  std::shared_ptr<Outbox> outbox_;
  std::shared_ptr<platform::URLSession> bgSession_;
  std::mutex underWayMutex_;
  std::map<std::uint64_t, UnderWay> underWay_;
  // Keys of their own: task identifiers are unique only within one session.
  std::atomic<std::uint64_t> nextUnderWayKey_{1};
  // The reports of fire-and-forget bodies still on the wire, by task identifier.
  std::mutex backgroundReportsMutex_;
  // Fire-and-forget bodies in the background session, by task: the report they carry (if
  // any) and their entry among the requests under way.
  struct BackgroundSend {
    ReportLedger::TicketPtr ticket;
    std::uint64_t underWayKey = 0;
  };
  std::map<std::uint64_t, BackgroundSend> backgroundReports_;
  // Removes a background send's entry (its report goes); its key among the requests under
  // way, or 0 when it had none left.
  std::uint64_t letGoOfBackgroundSend(std::uint64_t taskId);
};

}  // namespace quorvel
