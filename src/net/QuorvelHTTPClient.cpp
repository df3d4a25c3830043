#include "net/QuorvelHTTPClient.h"

#include <cmath>

#include <quorvel/Version.h>

#include <cstdio>

#include "common/QuorvelUtils.h"
#include "log/Log.h"
#include "net/RetryAfter.h"
#include "platform/SendTicket.h"
#include "util/BoundedJson.h"
#include "util/PercentEscape.h"
#include "util/PreferenceKeys.h"
#include "util/Utf8.h"

namespace quorvel {
namespace {

// What a request that a stop refused or cancelled fails with, as a cancelled transfer.
Error stoppedError() {
  return Error{platform::kURLErrorDomain, -999, "Quorvel is stopped"};
}

// Whether a failed transfer may have taken the request to the service: not when no connection
// was made (no route, refused, no name), none was secured (the handshake or the certificate
// failed), the URL was unusable, or it was cancelled before it started.
// A 2xx takes a report and a 4xx other than 429 refuses it for good; any other answer (a 5xx,
// a 429, a redirect not followed, an informational or impossible status) took nothing, and the
// report goes again later.
bool answerSettles(long status) {
  return (status >= 200 && status < 300) || (status >= 400 && status < 500 && status != 429);
}

bool mayHaveArrived(const Error& error) {
  switch (error.code) {
    case -999:
    case -1000:
    case -1003:
    case -1004:
    case -1009:
    case -1200:
    case -1202:
      return false;
    default:
      return true;
  }
}

}  // namespace

std::shared_ptr<QuorvelHTTPClient> QuorvelHTTPClient::create(
    std::shared_ptr<const Platform> platform, QuorvelProxyManager& remoteDebugging,
    std::shared_ptr<const Log> log, std::shared_ptr<QuorvelRequestCache> cache,
    std::shared_ptr<ReportLedger> ledger, std::shared_ptr<Outbox> outbox) {
  auto client =
      std::make_shared<QuorvelHTTPClient>(std::move(platform), remoteDebugging, std::move(log),
                                          std::move(cache), std::move(ledger), std::move(outbox));
  const auto capabilities = client->platform_->device->capabilities();
  // Without a usable background session, fire-and-forget bodies go in a background task.
  if (capabilities.backgroundSessions && capabilities.fireAndForgetInBackgroundSession) {
    client->bgSession_ = client->buildSessionWithConfiguration();
  }
  return client;
}

QuorvelHTTPClient::QuorvelHTTPClient(std::shared_ptr<const Platform> platform,
                                     QuorvelProxyManager& remoteDebugging,
                                     std::shared_ptr<const Log> log,
                                     std::shared_ptr<QuorvelRequestCache> cache,
                                     std::shared_ptr<ReportLedger> ledger,
                                     std::shared_ptr<Outbox> outbox)
    : platform_(std::move(platform)),
      remoteDebugging_(remoteDebugging),
      log_(std::move(log)),
      cache_(std::move(cache)),
      ledger_(std::move(ledger)),
      outbox_(std::move(outbox)) {}

ReportLedger::TicketPtr QuorvelHTTPClient::reportOfNewRequest() const {
  return ledger_ ? ledger_->currentOrOpen() : ReportLedger::current();
}

std::shared_ptr<platform::URLSession> QuorvelHTTPClient::buildSessionWithConfiguration() {
  if (!platform_->device->capabilities().backgroundSessions || !platform_->urlSessions)
    return nullptr;
  platform::BackgroundSessionConfiguration configuration;
  configuration.identifier = kBackgroundSessionIdentifier;
  configuration.allowsCellularAccess = true;
  configuration.sessionSendsLaunchEvents = false;
  return platform_->urlSessions->backgroundSession(configuration, weak_from_this());
}

std::string QuorvelHTTPClient::description() const {
  char text[64];
  std::snprintf(text, sizeof text, "<QuorvelHTTPClient: %p>", static_cast<const void*>(this));
  return text;
}

void QuorvelHTTPClient::sendRequestEventToServer(QuorvelRequestCacheData request,
                                                 bool isRequestFromCache,
                                                 const std::optional<std::string>& /*appID*/,
                                                 bool /*isDebug*/,
                                                 std::function<void()> onSuccess) {
  std::string url = request.requestURL().value_or(std::string());
  auto record = std::make_shared<const QuorvelRequestCacheData>(std::move(request));
  // The suffix goes on before escaping.
  if (isRequestFromCache) {
    url += "&isCachedRequest=true";
    // A replay is already safe on disk: it carries the report that started the replay along.
    post(std::move(record), std::move(url), Origin::cache, nullptr, std::move(onSuccess),
         ReportLedger::current());
    return;
  }
  auto ticket = reportOfNewRequest();
  if (ticket)
    ticket->attach();
  if (!outbox_) {
    post(std::move(record), std::move(url), Origin::fresh, nullptr, std::move(onSuccess),
         std::move(ticket));
    return;
  }
  // On disk before it leaves: a report accepted earlier now has its request; one made
  // without a host's call (a purchase report), or inside a report that has its request already
  // (a purchase from a callback of the launch's answer), enters the outbox here.
  OutboxSlotPtr slot = ticket ? ticket->outbox() : nullptr;
  if (!slot || !slot->claimForRequest())
    slot = outbox_->acceptBuilt();
  slot->startSending();
  const QuorvelRequestCacheData& built = *record;
  outbox_->built(slot, built,
                 [self = shared_from_this(), record = std::move(record), url = std::move(url), slot,
                  onSuccess = std::move(onSuccess), ticket = std::move(ticket)]() mutable {
                   self->post(std::move(record), std::move(url), Origin::fresh, slot,
                              std::move(onSuccess), std::move(ticket));
                 });
}

void QuorvelHTTPClient::sendOutboxRequest(const OutboxSlotPtr& slot,
                                          const QuorvelRequestCacheData& request,
                                          double secondsWaiting) {
  const std::string url = request.requestURL().value_or(std::string()) +
                          format("&timeincache=%f", secondsWaiting) + "&isCachedRequest=true";
  // A report of its own, whatever work sent it; one that holds no place in the build
  // throttle yet (an earlier run's) takes one, so that new reports are built only as fast
  // as the old ones leave.
  auto ticket = ledger_ ? ledger_->open() : nullptr;
  if (ticket && !slot->holdsPlace())
    ticket->attach();
  post(std::make_shared<const QuorvelRequestCacheData>(request), url, Origin::outbox, slot, nullptr,
       std::move(ticket));
}

void QuorvelHTTPClient::post(SharedRecord record, std::string url, Origin origin,
                             OutboxSlotPtr slot, std::function<void()> onSuccess,
                             ReportLedger::TicketPtr ticket) {
  static constexpr const char* kMethod =
      "-[QuorvelHTTPClient sendRequestEventToServer:isRequestFromCache:appID:isDebug:onSuccess:]";
  const QuorvelRequestCacheData& request = *record;
  const auto generation = consentGeneration();
  if (stopped()) {
    const ReportLedger::Scope scope(ticket);
    handleTrackingAnswer(request, origin, slot, std::nullopt, std::nullopt, stoppedError());
    return;
  }
  platform::URLRequest http;
  http.url = legacyPercentEscape(url);
  http.method = "POST";
  http.headers = {{"Content-Type", "application/octet-stream"}};
  http.body = request.postData().value_or(Bytes());
  log_->log(kLogInfo, kMethod, "sending request to server ");
  auto self = shared_from_this();
  const auto key = nextUnderWayKey_.fetch_add(1, std::memory_order_relaxed);
  const OutboxSlotPtr slotUnderWay = slot;
  // Decided before this copy's outcome can change it.
  const bool repeat =
      origin == Origin::cache ? request.mayHaveReached() : (slot && slot->mayHaveReached());
  auto task = platform_->urlSessions->sharedSession()->dataTask(
      std::move(http), [self, record, origin, slot = std::move(slot),
                        onSuccess = std::move(onSuccess), ticket = std::move(ticket), generation,
                        key, repeat](const auto& body, const auto& response, const auto& error) {
        const QuorvelRequestCacheData& request = *record;
        // What the answer starts (the conversion data of a launch) belongs to the report.
        const ReportLedger::Scope scope(ticket);
        if (!self->removeUnderWay(key))
          return;  // cancelled by a stop, and settled then
        if (repeat && !response && error && !mayHaveArrived(*error))
          self->noteRepeat(true);
        bool answered = false;
        {
          // Held from the check to the last write the answer makes (a kept file, the link
          // settings, the outbox's record): a stop or a forgetting waits for them, and none
          // lands after it returned. Not across `onSuccess`, which may call back in.
          platform::ConsentGate::Hold held;
          if (self->consent_)
            held = self->consent_->hold();
          if (!self->consentHolds(generation)) {
            // A 5xx or a 429 took nothing: the report stays for a start that runs.
            const long status = response ? response->statusCode : 0L;
            const bool taken = !error && answerSettles(status);
            const bool left = !error || mayHaveArrived(*error);
            self->settleAfterConsentChanged(slot, taken, status, left);
            if (origin == Origin::cache)
              self->cache_->abandonReplay(request, taken, left);
            return;
          }
          answered = self->handleTrackingAnswer(request, origin, slot, body, response, error);
        }
        if (answered && onSuccess)
          onSuccess();
      });
  // A kept file's replay carries no report of the outbox: cancelled, its file and the chain
  // of replays are let go instead.
  std::function<void(bool)> replayCancelled;
  if (origin == Origin::cache) {
    replayCancelled = [cache = cache_, record](bool mayHaveLeft) {
      cache->abandonReplay(*record, false, mayHaveLeft);
    };
  }
  // Counted before a stop can find it under way (and withdraw it).
  if (repeat)
    noteRepeat(false);
  addUnderWay(key, {task, slotUnderWay, nullptr, replayCancelled, origin, repeat});
  if (!consentHolds(generation)) {
    // A stop came since the check above: this one never starts.
    if (removeUnderWay(key)) {
      task->cancel();
      if (repeat)
        noteRepeat(true);
      if (replayCancelled)
        replayCancelled(false);
      else
        settleAfterConsentChanged(slotUnderWay, false, 0, false);
    }
    return;
  }
  task->resume();
}

void QuorvelHTTPClient::noteRepeat(bool withdrawn) const noexcept {
  if (outbox_)
    outbox_->noteRepeat(withdrawn);
}

std::shared_ptr<platform::URLSessionTask> QuorvelHTTPClient::startUnlessStopped(
    platform::URLSession& session, platform::URLRequest request,
    platform::DataTaskCompletion completion, std::function<void()> onCancelled,
    std::optional<platform::ConsentGate::Generation> since) {
  const auto generation = since.value_or(consentGeneration());
  if (onCancelled) {
    // Never inside the host's call that stopped the library, nor inside this one.
    onCancelled = [queue = session.delegateQueue(), f = std::move(onCancelled)] {
      queue->async(f);
    };
  }
  if (!consentHolds(generation)) {
    log_->log(kLogDebug, "-[QuorvelHTTPClient startUnlessStopped:]",
              "Quorvel is stopped: the request is not sent");
    if (onCancelled)
      onCancelled();
    return nullptr;
  }
  auto self = shared_from_this();
  const auto key = nextUnderWayKey_.fetch_add(1, std::memory_order_relaxed);
  auto task = session.dataTask(std::move(request),
                               [self, key, completion = std::move(completion)](
                                   const auto& body, const auto& response, const auto& error) {
                                 if (self->removeUnderWay(key) && completion)
                                   completion(body, response, error);
                               });
  addUnderWay(key, {task, nullptr, onCancelled});
  if (!consentHolds(generation)) {
    if (removeUnderWay(key)) {
      task->cancel();
      if (onCancelled)
        onCancelled();
    }
    return nullptr;
  }
  task->resume();
  return task;
}

void QuorvelHTTPClient::addUnderWay(std::uint64_t id, UnderWay underWay) {
  const std::lock_guard lock(underWayMutex_);
  underWay_[id] = std::move(underWay);
}

bool QuorvelHTTPClient::removeUnderWay(std::uint64_t id) {
  const std::lock_guard lock(underWayMutex_);
  return underWay_.erase(id) > 0;
}

void QuorvelHTTPClient::cancelRequestsUnderWay() {
  std::map<std::uint64_t, UnderWay> cancelled;
  {
    const std::lock_guard lock(underWayMutex_);
    cancelled.swap(underWay_);
  }
  // A cancelled task's completion never runs: its report is settled here, as unanswered (one
  // already on the wire may have arrived: a start that runs may send it again).
  for (auto& [id, underWay] : cancelled) {
    const auto task = underWay.task.lock();
    if (task)
      task->cancel();
    // Looked at after the cancel: a copy that its session had not handed over by then never
    // leaves (one gone already had its outcome).
    const bool mayHaveLeft = !task || platform::taskMayHaveLeft(*task);
    if (underWay.repeat && !mayHaveLeft)
      noteRepeat(true);
    if (underWay.onCancelled)
      underWay.onCancelled();
    else if (underWay.replayCancelled)
      underWay.replayCancelled(mayHaveLeft);
    else
      settleAfterConsentChanged(underWay.slot, false, 0, mayHaveLeft);
  }
}

void QuorvelHTTPClient::settleAfterConsentChanged(const OutboxSlotPtr& slot, bool answered,
                                                  long status, bool mayHaveLeft) {
  log_->log(kLogDebug, "-[QuorvelHTTPClient sendRequestEventToServer:]_block_invoke",
            "Quorvel was stopped while the request was on its way: its answer is ignored");
  if (!outbox_ || !slot)
    return;  // a forgetting settled it already
  // Delivered, it must not go twice; unanswered, it waits for a start that runs.
  if (answered && status >= 400) {
    outbox_->refused(slot);
  } else if (answered) {
    outbox_->answered(slot);
  } else {
    const auto ticket = ReportLedger::current();
    outbox_->failed(slot, ticket ? ticket->buildPermit() : nullptr, mayHaveLeft);
  }
}

bool QuorvelHTTPClient::ownsKeptFolder() const {
  return !outbox_ || !outbox_->dataDirectoryHeldElsewhere();
}

bool QuorvelHTTPClient::handleTrackingAnswer(const QuorvelRequestCacheData& request, Origin origin,
                                             const OutboxSlotPtr& slot,
                                             const std::optional<Bytes>& body,
                                             const std::optional<platform::URLResponse>& response,
                                             const std::optional<Error>& error) {
  static constexpr const char* kMethod =
      "-[QuorvelHTTPClient "
      "sendRequestEventToServer:isRequestFromCache:appID:isDebug:onSuccess:]_block_invoke";
  if (error) {
    log_->log(kLogDebug, kMethod, "Quorvel Connection failed! Error - %@ ",
              error->localizedDescription);
    if (origin == Origin::cache) {
      // A record of another library version gets one more try only; another waits, under
      // its plain name again, for a later replay.
      if (request.sdkVersion() != std::optional<std::string>(kQuorvelSDKVersion))
        cache_->deleteRequest(request);
      else
        cache_->releaseRequest(request, mayHaveArrived(*error));
      cache_->sendNextCachedEvents();
    } else if (origin == Origin::fresh && ownsKeptFolder() && !stopped() &&
               cache_->cacheRequest(request,
                                    slot ? std::optional(slot->acceptedAt()) : std::nullopt,
                                    mayHaveArrived(*error))) {
      // The kept-request folder holds it now, and replays it after the next answer.
      if (outbox_)
        outbox_->dropped(slot, Outbox::DropReason::handedOver);
    } else if (outbox_) {
      // The folder is full (or this was the outbox's own try): it waits in the outbox, and
      // keeps its place in the build throttle while it waits. One that cannot have reached
      // the service: its next copy is no repeat.
      const auto ticket = ReportLedger::current();
      outbox_->failed(slot, ticket ? ticket->buildPermit() : nullptr, mayHaveArrived(*error));
    }
    return false;
  }
  const long status = response ? response->statusCode : 0L;
  log_->log(kLogDebug, kMethod, "sent information to server, status = %ld", status);
  // What runs after any answer runs whatever its status; what is kept depends on it. A 5xx or
  // a 429 says the service did not take the report: it stays (in the outbox, or as its kept
  // file) and goes again after a backoff, where an answered request used to be deleted whatever
  // its status, which lost every report a restarting or overloaded service turned away.
  const bool takeLater = !answerSettles(status);
  if (takeLater) {
    log_->log(kLogWarning, kMethod,
              "Quorvel: the service answered %ld: the report is kept and goes again later", status);
  }
  if (outbox_ && slot) {
    if (takeLater) {
      const auto ticket = ReportLedger::current();
      outbox_->answeredRetryLater(slot, retryAfterOf(response, platform_->clock->now()),
                                  ticket ? ticket->buildPermit() : nullptr);
    } else if (status >= 400) {
      outbox_->refused(slot);
    } else {
      outbox_->answered(slot);
      outbox_->transportRecovered();
    }
  }
  applyTrackingAnswer(body);
  if (outbox_ && origin == Origin::cache)
    outbox_->noteFolderAnswer(status);
  if (origin == Origin::cache) {
    // A kept file the service turned away stays for the replay after the next answer that
    // took a report; going on now would only meet the same refusal.
    if (takeLater) {
      // Back under its own name, and the replay ends here: the next answer starts it again.
      cache_->abandonReplay(request, false);
    } else {
      cache_->deleteRequest(request);
      cache_->sendNextCachedEvents();
    }
  } else if (ownsKeptFolder() && !takeLater) {
    cache_->processCache();
  }
  return true;
}

void QuorvelHTTPClient::applyTrackingAnswer(const std::optional<Bytes>& body) {
  static constexpr const char* kMethod =
      "-[QuorvelHTTPClient "
      "sendRequestEventToServer:isRequestFromCache:appID:isDebug:onSuccess:]_block_invoke";
  // Read where it lies: every answer passes here.
  const std::string_view text =
      body ? std::string_view(reinterpret_cast<const char*>(body->data()), body->size())
           : std::string_view();
  const Json parsed = parseBoundedJson(text);
  auto& proxy = remoteDebugging_;
  if (parsed.is_discarded()) {
    proxy.dropPreLaunchData();
    proxy.stopRemoteDebugging();
    return;
  }
  log_->log(kLogDebug, kMethod, "Received JSON response:\n %@", parsed);
  // An answer that is not an object reads as if "monitor" were absent.
  std::int64_t monitor = 0;
  if (parsed.is_object()) {
    const auto it = parsed.find("monitor");
    if (it != parsed.end() && (it->is_number() || it->is_boolean())) {
      // A float beyond the integers (1e300) is not "1"; converting it would be undefined.
      const double d = it->is_number_float() ? it->get<double>() : 0.0;
      monitor = !it->is_number_float()                      ? it->get<std::int64_t>()
                : std::isfinite(d) && std::fabs(d) < 9.2e18 ? static_cast<std::int64_t>(d)
                                                            : 0;
    } else if (it != parsed.end() && it->is_string()) {
      monitor = leadingInteger(it->get<std::string>());
    }
  }
  if (monitor == 1) {
    proxy.startRemoteDebugging();
  } else {
    proxy.stopRemoteDebugging();
    proxy.dropPreLaunchData();
  }
  handleHoplineResponse(parsed);
}

void QuorvelHTTPClient::sendRequestWithConfiguration(const std::string& url,
                                                     const std::string& data) {
  platform::URLRequest request;
  request.url = url;
  request.method = "POST";
  request.headers = {{"Content-Type", "application/text"}};
  request.body = Bytes(data.begin(), data.end());
  const auto generation = consentGeneration();
  if (!consentHolds(generation))
    return;  // built before the stop; it goes nowhere after it
  if (!platform_->device->capabilities().fireAndForgetInBackgroundSession) {
    backgroundCallWithRequest(std::move(request), generation);
  } else if (bgSession_) {
    // Under way like every other request: a stop cancels it, and one that came since the check
    // above keeps it from starting.
    const auto key = nextUnderWayKey_.fetch_add(1, std::memory_order_relaxed);
    auto task = bgSession_->downloadTask(std::move(request));
    const auto id = task->taskIdentifier();
    {
      const std::lock_guard lock(backgroundReportsMutex_);
      backgroundReports_[id] = {reportOfNewRequest(), key};
    }
    // A cancelled task never completes: its entry (and the report it carries) goes then.
    auto forget = [weak = weak_from_this(), id] {
      if (const auto self = weak.lock())
        self->letGoOfBackgroundSend(id);
    };
    addUnderWay(key, {task, nullptr, forget});
    if (!consentHolds(generation)) {
      if (removeUnderWay(key)) {
        task->cancel();
        forget();
      }
      return;
    }
    task->resume();
  } else {
    log_->trace("-[QuorvelHTTPClient sendRequestWithConfiguration:data:]",
                "WARN: bgSession is nil");
  }
}

void QuorvelHTTPClient::backgroundCallWithRequest(platform::URLRequest request,
                                                  platform::ConsentGate::Generation consent) {
  static constexpr const char* kMethod = "-[QuorvelHTTPClient backgroundCallWithRequest:]";
  auto cell = std::make_shared<std::atomic<platform::BackgroundTaskIdentifier>>(
      platform::kInvalidBackgroundTask);
  auto application = platform_->application;
  const std::string me = description();
  // Whichever of expiration and completion comes first ends the task.
  auto endTask = [application, cell] {
    const auto id = cell->exchange(platform::kInvalidBackgroundTask);
    if (id != platform::kInvalidBackgroundTask)
      application->endBackgroundTask(id);
  };
  cell->store(application->beginBackgroundTask([log = log_, me, cell, endTask] {
    log->trace("-[QuorvelHTTPClient backgroundCallWithRequest:]_block_invoke",
               "%@ background task %lu cut short", me, cell->load());
    endTask();
  }));
  auto session = platform_->urlSessions->sharedSession();
  // Started later, on another queue: not after a stop that came meanwhile, and cancelled by
  // one that comes while it is under way.
  platform_->dispatcher->globalQueue()->async(
      [self = shared_from_this(), log = log_, me, cell, endTask, session, consent,
       request = std::move(request), ticket = reportOfNewRequest()]() mutable {
        static constexpr const char* kBlock =
            "-[QuorvelHTTPClient backgroundCallWithRequest:]_block_invoke_2";
        log->trace(kBlock, "%@ starting background task %lu", me, cell->load());
        self->startUnlessStopped(
            *session, std::move(request),
            [log, me, cell, endTask, ticket](const auto&, const auto&, const auto& error) {
              static constexpr const char* kDone =
                  "-[QuorvelHTTPClient backgroundCallWithRequest:]_block_invoke_3";
              if (!error)
                log->trace(kDone, "Response 200 ok.");
              log->trace(kDone, "%@ ending background task %lu", me, cell->load());
              endTask();
            },
            endTask, consent);
      });
  log_->log(kLogDebug, kMethod, "%@ dispatched background task %lu", me, cell->load());
}

std::pair<std::string, std::string> QuorvelHTTPClient::signature(const std::string& devKey,
                                                                 platform::TimePoint now) {
  const std::string timestamp = format("%.f", platform::secondsSince1970(now));
  return {timestamp, QuorvelUtils::sha1(format("%@%@", devKey, timestamp))};
}

std::shared_ptr<platform::URLSessionTask> QuorvelHTTPClient::getHopline(
    const std::string& url, const std::string& devKey, HoplineCompletion completionHandler) {
  const auto [timestamp, authorization] = signature(devKey, platform_->clock->now());
  platform::URLRequest request;
  request.url = url;
  request.method = "GET";
  request.headers = {{"Content-Type", "application/json"},
                     {"qv-timestamp", timestamp},
                     {"authorization", authorization}};
  // Stopped, the link is not resolved and nothing of it reaches the delegate.
  return startUnlessStopped(*platform_->urlSessions->sharedSession(), std::move(request),
                            [completionHandler, ticket = reportOfNewRequest()](
                                const auto& body, const auto& response, const auto& error) {
                              if (!completionHandler)
                                return;
                              if (error) {
                                completionHandler(std::nullopt, error);
                                return;
                              }
                              if (body && response && response->mimeType == "application/json" &&
                                  response->statusCode == 200) {
                                const Json parsed =
                                    parseBoundedJson(std::string(body->begin(), body->end()));
                                if (parsed.is_discarded()) {
                                  completionHandler(std::nullopt, jsonParserError());
                                  return;
                                }
                                if (parsed.is_object()) {
                                  completionHandler(parsed, std::nullopt);
                                  return;
                                }
                              }
                              completionHandler(std::nullopt, std::nullopt);
                            });
}

std::shared_ptr<platform::URLSessionTask> QuorvelHTTPClient::createHopline(
    const std::string& url, std::int64_t ttl, const std::string& devKey, const Json& parameters,
    CreateHoplineCompletion completionHandler) {
  static constexpr const char* kMethod =
      "-[QuorvelHTTPClient createHopline:ttl:devKey:parameters:completionHandler:]";
  Json body = Json::object();
  body["ttl"] = format("%ld", ttl);
  body["data"] = parameters.is_object() && QuorvelUtils::isValidJSONObject(parameters)
                     ? parameters
                     : Json::object();
  log_->log(kLogDebug, kMethod, "CreateHopline ttl: %ld", ttl);
  // The integer conversion for a dictionary is how this line has always read.
  log_->log(kLogDebug, kMethod, "CreateHopline parameters: %ld", body);
  const auto [timestamp, authorization] = signature(devKey, platform_->clock->now());
  platform::URLRequest request;
  request.url = url;
  request.method = "POST";
  request.headers = {{"Content-Type", "application/json"},
                     {"qv-timestamp", timestamp},
                     {"authorization", authorization}};
  const std::string text = body.dump(-1, ' ', false, Json::error_handler_t::replace);
  request.body = Bytes(text.begin(), text.end());
  return startUnlessStopped(
      *platform_->urlSessions->sharedSession(), std::move(request),
      [completionHandler, ticket = reportOfNewRequest()](const auto& answer, const auto& response,
                                                         const auto& error) {
        if (!completionHandler)
          return;
        if (error) {
          completionHandler(std::nullopt, error);
          return;
        }
        if (answer && response && response->statusCode == 200) {
          std::string link(answer->begin(), answer->end());
          if (isValidUtf8(link)) {
            completionHandler(std::move(link), std::nullopt);
            return;
          }
        }
        completionHandler(std::nullopt, std::nullopt);
      },
      [completionHandler] {
        if (completionHandler)
          completionHandler(std::nullopt, stoppedError());
      });
}

std::shared_ptr<platform::URLSessionTask> QuorvelHTTPClient::sendValidateRequest(
    const Json& request, ValidateCompletion complitionBlock) {
  static constexpr const char* kMethod =
      "-[QuorvelHTTPClient sendValidateRequest:complitionBlock:]";
  if (!request.is_object() || !request.contains("data"))
    return nullptr;
  const auto text = [&](const char* key) {
    return request.contains(key) ? FormatArg(request[key]) : FormatArg();
  };
  const std::string url = format(
      "%@?app_id=%@&quorvel_id=%@&dev_key=%@&sandbox=%@&tran_id=%@&advertisingId=%@&JBDevice=%@",
      text("url"), text("appId"), text("quorvelId"), text("appDevKey"), text("sandbox"),
      text("transactionId"), text("advertisingId"), text("JBDevice"));
  const std::string body = request["data"].dump(-1, ' ', false, Json::error_handler_t::replace);
  QuorvelUtils::logRequestContent(kRequestReceiptValidation, url, body, *log_);
  platform::URLRequest http;
  http.url = url;
  http.method = "POST";
  http.headers = {{"Accept", "application/json"}, {"Content-Type", "application/json"}};
  http.body = Bytes(body.begin(), body.end());
  log_->log(kLogInfo, kMethod, "sending validate request to server ...");
  return startUnlessStopped(
      *platform_->urlSessions->sharedSession(), std::move(http),
      [log = log_, complitionBlock, ticket = reportOfNewRequest()](const auto& answer, const auto&,
                                                                   const auto& error) {
        if (error) {
          log->log(kLogDebug,
                   "-[QuorvelHTTPClient sendValidateRequest:complitionBlock:]_block_invoke",
                   "Quorvel Connection failed! Error - %@", error->localizedDescription);
        }
        if (complitionBlock)
          complitionBlock(error, answer);
      },
      [complitionBlock] {
        if (complitionBlock)
          complitionBlock(stoppedError(), std::nullopt);
      });
}

void QuorvelHTTPClient::handleHoplineResponse(const Json& response) {
  auto& prefs = *platform_->preferences;
  // Every answer repeats the settings: they are written through only when one changed. A
  // durable write per answer was the largest cost of a burst; the tracker's other pending
  // changes go with its own group commit.
  bool changed = false;
  const auto keep = [&](std::string_view key, const std::string& value) {
    if (prefs.stringForKey(key) != value) {
      prefs.setString(key, value);
      changed = true;
    }
  };
  try {
    if (response.is_object()) {
      const auto text = [&](const char* key) -> std::optional<std::string> {
        const auto it = response.find(key);
        if (it == response.end() || it->is_null())
          return std::nullopt;
        return it->is_string() ? it->get<std::string>() : it->dump();
      };
      if (auto domain = text("hl_domain"))
        keep(keys::kHoplineDomain, *domain);
      if (auto version = text("hl_ver"))
        keep(keys::kHoplineVersion, *version);
      if (auto scheme = text("hl_scheme"); QuorvelUtils::isValidDeeplink(scheme)) {
        keep(keys::kHoplineScheme, *scheme);
      }
    }
  } catch (...) {
    // Ignored as the platform's exceptions are; what was stored so far is kept.
    changed = true;
  }
  if (changed)
    prefs.synchronize();
}

void QuorvelHTTPClient::didFinishDownloadingToPath(platform::URLSessionTask& task,
                                                   const std::string& /*path*/) {
  static constexpr const char* kMethod =
      "-[QuorvelHTTPClient URLSession:downloadTask:didFinishDownloadingToURL:]";
  if (remoteDebugging_.isRemoteDebugging() && !task.originalRequest().url.empty()) {
    log_->log(kLogDebug, kMethod, "Response 200 ok on URL: %@", task.originalRequest().url);
  } else {
    log_->log(kLogDebug, kMethod, "Response 200 ok.");
  }
}

void QuorvelHTTPClient::didCompleteWithError(platform::URLSessionTask& task,
                                             const std::optional<Error>& error) {
  if (error) {
    log_->log(kLogError, "-[QuorvelHTTPClient URLSession:task:didCompleteWithError:]",
              "task %@ completed with error: %@", task.description(), error->localizedDescription);
  }
  removeUnderWay(letGoOfBackgroundSend(task.taskIdentifier()));
}

std::uint64_t QuorvelHTTPClient::letGoOfBackgroundSend(std::uint64_t taskId) {
  ReportLedger::TicketPtr settled;  // let go outside the lock
  const std::lock_guard lock(backgroundReportsMutex_);
  const auto it = backgroundReports_.find(taskId);
  if (it == backgroundReports_.end())
    return 0;
  settled = std::move(it->second.ticket);
  const std::uint64_t underWay = it->second.underWayKey;
  backgroundReports_.erase(it);
  return underWay;
}

}  // namespace quorvel
