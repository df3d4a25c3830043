// The library's URL sessions over a host's transport: each task hands its request over once
// and delivers the one outcome on its session's queue, as a libcurl session would.
#include <quorvel/Transport.h>

#include <fcntl.h>
#include <unistd.h>

#include <strings.h>
#include <atomic>

#include <cstdlib>
#include <mutex>

namespace quorvel {
namespace {

using platform::URLRequest;

constexpr std::int64_t kCannotConnect = -1004;

class TransportSession;

class TransportTask final : public platform::URLSessionTask,
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
  void cancel() noexcept override { cancelled_ = true; }
  std::string description() const override {
    return "<TransportTask> { taskIdentifier: " + std::to_string(id_) + " }";
  }

  void finish(std::optional<TransportResponse> response, std::optional<Error> failure);

 private:
  std::uint64_t id_;
  URLRequest request_;
  platform::DataTaskCompletion completion_;
  std::shared_ptr<TransportSession> session_;
  std::atomic<bool> resumed_{false};
  std::atomic<bool> cancelled_{false};
};

class TransportSession final : public platform::URLSession,
                               public std::enable_shared_from_this<TransportSession> {
 public:
  TransportSession(std::shared_ptr<Transport> transport,
                   std::shared_ptr<platform::DispatchQueue> queue,
                   std::weak_ptr<platform::URLSessionDownloadDelegate> delegate,
                   std::string downloadDirectory)
      : transport_(std::move(transport)),
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
  std::shared_ptr<platform::DispatchQueue> queue_;
  std::weak_ptr<platform::URLSessionDownloadDelegate> delegate_;
  std::string downloadDirectory_;
  std::atomic<std::uint64_t> nextId_{1};
};

void TransportTask::resume() noexcept {
  if (resumed_.exchange(true))
    return;
  try {
    TransportRequest request{request_.method, request_.url, request_.headers, request_.body,
                             request_.timeout.value_or(std::chrono::milliseconds(60'000))};
    // The host may answer twice by mistake, or never: only the first answer counts.
    auto once = std::make_shared<std::once_flag>();
    session_->transport().send(std::move(request), [self = shared_from_this(), once](
                                                       std::optional<TransportResponse> response,
                                                       std::optional<Error> failure) {
      std::call_once(*once, [&] { self->finish(std::move(response), std::move(failure)); });
    });
  } catch (...) {
    finish(std::nullopt, Error{platform::kURLErrorDomain, kCannotConnect, "transport failed"});
  }
}

void TransportTask::finish(std::optional<TransportResponse> response,
                           std::optional<Error> failure) {
  if (!response && !failure)
    failure = Error{platform::kURLErrorDomain, kCannotConnect, "no answer from the transport"};
  session_->delegateQueue()->async([self = shared_from_this(), response = std::move(response),
                                    failure = std::move(failure)]() mutable {
    if (self->cancelled_)
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
    return std::make_shared<TransportSession>(
        transport_, dispatcher_->makeSerialQueue("com.quorvel.transport." + name),
        std::move(delegate), downloadDirectory_);
  }

  std::shared_ptr<Transport> transport_;
  std::shared_ptr<platform::Dispatcher> dispatcher_;
  std::string downloadDirectory_;
  std::mutex mutex_;
  std::shared_ptr<platform::URLSession> shared_;
};

}  // namespace

std::shared_ptr<platform::URLSessionFactory> makeTransportSessions(
    std::shared_ptr<Transport> transport, std::shared_ptr<platform::Dispatcher> dispatcher,
    std::string downloadDirectory) {
  return std::make_shared<TransportSessionFactory>(std::move(transport), std::move(dispatcher),
                                                   std::move(downloadDirectory));
}

}  // namespace quorvel
