// The library's URL sessions over a host's transport: each task hands its request over once
// and delivers the one outcome on its session's queue, as a libcurl session would.
#include <quorvel/Transport.h>

#include <fcntl.h>
#include <unistd.h>

#include <strings.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <string>

#include "platform/SendTicket.h"

namespace quorvel {

namespace platform {
namespace {
thread_local SendTicketPtr tSendTicket;  // NOLINT: one per thread by design
}  // namespace

SendTicketPtr currentSendTicket() noexcept {
  return tSendTicket;
}

SendTicketScope::SendTicketScope(SendTicketPtr ticket) noexcept
    : previous_(std::exchange(tSendTicket, std::move(ticket))) {}

SendTicketScope::~SendTicketScope() {
  tSendTicket = std::move(previous_);
}

bool taskMayHaveLeft(const URLSessionTask& task) noexcept {
  const auto* aware = dynamic_cast<const HandOverAware*>(&task);
  return aware == nullptr || aware->requestMayHaveLeft();
}
}  // namespace platform

namespace {

using platform::URLRequest;

constexpr std::int64_t kCannotConnect = -1004;
constexpr std::int64_t kTimedOut = -1001;
constexpr std::chrono::milliseconds kDefaultTimeout{60'000};
// Past the request's own timeout: a transport that enforces it answers first.
constexpr std::chrono::milliseconds kDeadlineGrace{1'000};

// A host's send may block (an engine's synchronous HTTP call, a slow Python function). It runs
// on lanes of its own, each on a thread of its own that ends when idle: never on the thread
// that started the request (the outbox's writer, or a host thread inside destroy), and a send
// that blocks holds its lane only. A new send takes the lane with the fewest sends.
class SendLanes : public std::enable_shared_from_this<SendLanes> {
 public:
  explicit SendLanes(platform::Dispatcher& dispatcher) {
    for (std::size_t i = 0; i < lanes_.size(); ++i)
      lanes_[i].queue =
          dispatcher.makeDiskQueue("com.quorvel.transport.send-" + std::to_string(i + 1));
  }

  void run(platform::Work send) noexcept {
    std::size_t chosen = 0;
    int fewest = std::numeric_limits<int>::max();
    for (std::size_t i = 0; i < lanes_.size(); ++i) {
      if (const int sends = lanes_[i].sends.load(std::memory_order_relaxed); sends < fewest) {
        fewest = sends;
        chosen = i;
      }
    }
    Lane& lane = lanes_[chosen];
    lane.sends.fetch_add(1, std::memory_order_relaxed);
    lane.queue->async([self = shared_from_this(), &lane, send = std::move(send)] {
      // Given back on every way out, a thread ended under the host's send among them: a count
      // never given back would steer every later send away from a lane that works.
      const struct GiveBack {
        std::atomic<int>& sends;
        ~GiveBack() { sends.fetch_sub(1, std::memory_order_relaxed); }
      } giveBack{lane.sends};
      send();
    });
  }

 private:
  struct Lane {
    std::shared_ptr<platform::DispatchQueue> queue;
    std::atomic<int> sends{0};
  };
  std::array<Lane, 4> lanes_;
};

class TransportSession;

class TransportTask final : public platform::URLSessionTask,
                            public platform::HandOverAware,
                            public std::enable_shared_from_this<TransportTask> {
 public:
  TransportTask(std::uint64_t id, URLRequest request, platform::DataTaskCompletion completion,
                std::shared_ptr<TransportSession> session)
      : id_(id),
        request_(std::move(request)),
        completion_(std::move(completion)),
        session_(std::move(session)) {}

  std::uint64_t taskIdentifier() const noexcept override { return id_; }
  const URLRequest& originalRequest() const noexcept override { return request_; }
  void resume() noexcept override;
  // A cancelled task never completes: its completion (and the report it holds) goes at once,
  // not when the host answers, which may be never.
  void cancel() noexcept override;
  std::string description() const override {
    return "<TransportTask> { taskIdentifier: " + std::to_string(id_) + " }";
  }
  bool requestMayHaveLeft() const noexcept override { return ticket_->mayHaveLeft(); }

  void finish(std::optional<TransportResponse> response, std::optional<Error> failure);

 private:
  std::uint64_t id_;
  URLRequest request_;
  platform::DataTaskCompletion completion_;
  std::shared_ptr<TransportSession> session_;
  std::atomic<bool> resumed_{false};
  // Shared with the host's open reply, which is no longer pending once it is cancelled.
  platform::SendTicketPtr ticket_ = std::make_shared<platform::SendTicket>();
  // Who came first: the lane that hands it to the host, or its outcome (its deadline, a
  // failure). Decided once, so that a request failed at its deadline never leaves afterwards.
  enum Stage : int { waiting, handedOver, ended };
  std::atomic<int> stage_{waiting};
  bool takeStage(Stage next) noexcept {
    int expected = waiting;
    return stage_.compare_exchange_strong(expected, next);
  }
};

class TransportSession final : public platform::URLSession,
                               public std::enable_shared_from_this<TransportSession> {
 public:
  TransportSession(std::shared_ptr<Transport> transport, std::shared_ptr<SendLanes> lanes,
                   std::shared_ptr<platform::DispatchQueue> queue,
                   std::weak_ptr<platform::URLSessionDownloadDelegate> delegate,
                   std::string downloadDirectory)
      : transport_(std::move(transport)),
        lanes_(std::move(lanes)),
        queue_(std::move(queue)),
        delegate_(std::move(delegate)),
        downloadDirectory_(std::move(downloadDirectory)) {}

  std::shared_ptr<platform::URLSessionTask> dataTask(
      URLRequest request, platform::DataTaskCompletion completion) override {
    return std::make_shared<TransportTask>(nextId_++, std::move(request), std::move(completion),
                                           shared_from_this());
  }
  std::shared_ptr<platform::URLSessionTask> downloadTask(URLRequest request) override {
    return dataTask(std::move(request), nullptr);
  }
  std::shared_ptr<platform::DispatchQueue> delegateQueue() override { return queue_; }

  Transport& transport() { return *transport_; }
  SendLanes& lanes() { return *lanes_; }
  // A background session's outcome: the body as a file, then the completion.
  void deliverDownload(platform::URLSessionTask& task, const std::optional<Bytes>& body,
                       const std::optional<Error>& failure) {
    const auto receiver = delegate_.lock();
    if (!receiver)
      return;
    if (body) {
      std::string path = downloadDirectory_ + "/quorvel-download-XXXXXX";
      const int fd = ::mkstemp(path.data());
      if (fd >= 0) {
        const bool whole =
            ::write(fd, body->data(), body->size()) == static_cast<ssize_t>(body->size());
        ::close(fd);
        if (whole)
          receiver->didFinishDownloadingToPath(task, path);
        ::unlink(path.c_str());
      }
    }
    receiver->didCompleteWithError(task, failure);
  }

 private:
  std::shared_ptr<Transport> transport_;
  std::shared_ptr<SendLanes> lanes_;
  std::shared_ptr<platform::DispatchQueue> queue_;
  std::weak_ptr<platform::URLSessionDownloadDelegate> delegate_;
  std::string downloadDirectory_;
  std::atomic<std::uint64_t> nextId_{1};
};

void TransportTask::resume() noexcept {
  // A task cancelled before it started (a stop) never reaches the host's transport.
  if (ticket_->cancelled || resumed_.exchange(true))
    return;
  try {
    const auto timeout = request_.timeout.value_or(kDefaultTimeout);
    // The host may answer twice by mistake, or never: only the first outcome counts, and the
    // library's own deadline is one.
    auto once = std::make_shared<std::once_flag>();
    TransportDone done = [self = shared_from_this(), once](
                             std::optional<TransportResponse> response,
                             std::optional<Error> failure) {
      std::call_once(*once, [&] { self->finish(std::move(response), std::move(failure)); });
    };
    // Holds the task weakly: a task the host still holds (its answer outstanding) fails at the
    // deadline; one it let go was answered.
    session_->delegateQueue()->asyncAfter(timeout + kDeadlineGrace, [weak = weak_from_this(),
                                                                     once] {
      if (const auto self = weak.lock()) {
        std::call_once(*once, [&] {
          // Ended before the look at what the host said, so that a take that finds it unended
          // is seen: from here the host can no longer take it.
          self->ticket_->ended = true;
          // Still in the queue of a transport that takes each request before it sends it: it
          // never left, and its next copy is no repeat.
          self->finish(std::nullopt,
                       self->ticket_->heldUnsentByHost()
                           ? Error{platform::kURLErrorDomain, kCannotConnect,
                                   "the host's transport had not sent it by its deadline"}
                           : Error{platform::kURLErrorDomain, kTimedOut, "The request timed out."});
        });
      }
    });
    session_->lanes().run([self = shared_from_this(), timeout, done = std::move(done)]() mutable {
      // Cancelled, or failed at its deadline, while it waited for a lane: it never leaves (the
      // library sends a failed request again, and this copy would go twice).
      if (self->ticket_->cancelled || !self->takeStage(handedOver))
        return;
      const platform::SendTicketScope cancellable(self->ticket_);
      try {
        TransportRequest request{self->request_.method, self->request_.url, self->request_.headers,
                                 self->request_.body, timeout};
        // Said before the last look at the cancel, so that a stop that finds it unsaid knows
        // that this copy never leaves.
        self->ticket_->handedToHost = true;
        if (self->ticket_->cancelled)
          return;  // stopped while it was copied: it never leaves (its deadline ends it)
        self->session_->transport().send(std::move(request), std::move(done));
      } catch (const std::bad_alloc&) {
        done(std::nullopt, Error{platform::kURLErrorDomain, kCannotConnect, "transport failed"});
      }
    });
  } catch (...) {
    finish(std::nullopt, Error{platform::kURLErrorDomain, kCannotConnect, "transport failed"});
  }
}

void TransportTask::cancel() noexcept {
  if (ticket_->cancelled.exchange(true))
    return;
  try {
    session_->delegateQueue()->async([self = shared_from_this()] { self->completion_ = nullptr; });
  } catch (...) {
    // Out of memory: the completion goes with the task instead.
  }
}

void TransportTask::finish(std::optional<TransportResponse> response,
                           std::optional<Error> failure) {
  // Failed before a lane handed it to the host (every lane held by a blocking send until its
  // deadline): it never left, and a later copy is no repeat, whatever the failure says.
  if (takeStage(ended) && !response)
    failure = Error{platform::kURLErrorDomain, kCannotConnect,
                    "no transport lane was free before the request's deadline"};
  if (!response && !failure)
    failure = Error{platform::kURLErrorDomain, kCannotConnect, "no answer from the transport"};
  session_->delegateQueue()->async([self = shared_from_this(), response = std::move(response),
                                    failure = std::move(failure)]() mutable {
    if (self->ticket_->cancelled)
      return;
    std::optional<Bytes> body;
    std::optional<platform::URLResponse> answer;
    if (response) {
      answer.emplace();
      answer->url = self->request_.url;
      answer->statusCode = response->status;
      answer->headers = response->headers;
      for (const auto& [name, value] : response->headers) {
        if (strcasecmp(name.c_str(), "Content-Type") == 0)
          answer->mimeType = value.substr(0, value.find(';'));
      }
      body = std::move(response->body);
      failure.reset();
    }
    if (auto completion = std::exchange(self->completion_, nullptr)) {
      completion(body, answer, failure);
    } else {
      self->session_->deliverDownload(*self, body, failure);
    }
  });
}

class TransportSessionFactory final : public platform::URLSessionFactory {
 public:
  TransportSessionFactory(std::shared_ptr<Transport> transport,
                          std::shared_ptr<platform::Dispatcher> dispatcher,
                          std::string downloadDirectory)
      : transport_(std::move(transport)),
        dispatcher_(std::move(dispatcher)),
        downloadDirectory_(std::move(downloadDirectory)) {}

  std::shared_ptr<platform::URLSession> sharedSession() override {
    const std::lock_guard lock(mutex_);
    if (!shared_)
      shared_ = make("shared", {});
    return shared_;
  }
  std::shared_ptr<platform::URLSession> defaultSession() override { return make("default", {}); }
  std::shared_ptr<platform::URLSession> backgroundSession(
      const platform::BackgroundSessionConfiguration& configuration,
      std::weak_ptr<platform::URLSessionDownloadDelegate> delegate) override {
    return make(configuration.identifier, std::move(delegate));
  }

 private:
  std::shared_ptr<platform::URLSession> make(
      const std::string& name, std::weak_ptr<platform::URLSessionDownloadDelegate> delegate) {
    std::shared_ptr<SendLanes> lanes;
    {
      // One set for every session: the lanes bound the host's concurrent sends.
      const std::lock_guard lock(lanesMutex_);
      if (!lanes_)
        lanes_ = std::make_shared<SendLanes>(*dispatcher_);
      lanes = lanes_;
    }
    return std::make_shared<TransportSession>(
        transport_, std::move(lanes), dispatcher_->makeSerialQueue("com.quorvel.transport." + name),
        std::move(delegate), downloadDirectory_);
  }

  std::shared_ptr<Transport> transport_;
  std::shared_ptr<platform::Dispatcher> dispatcher_;
  std::string downloadDirectory_;
  std::mutex mutex_;
  std::shared_ptr<platform::URLSession> shared_;
  std::mutex lanesMutex_;  // not `mutex_`: a shared session is made under that one
  std::shared_ptr<SendLanes> lanes_;
};

}  // namespace

std::shared_ptr<platform::URLSessionFactory> makeTransportSessions(
    std::shared_ptr<Transport> transport, std::shared_ptr<platform::Dispatcher> dispatcher,
    std::string downloadDirectory) {
  return std::make_shared<TransportSessionFactory>(std::move(transport), std::move(dispatcher),
                                                   std::move(downloadDirectory));
}

}  // namespace quorvel
