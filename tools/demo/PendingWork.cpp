#include "PendingWork.h"

#include <map>

namespace quorvel::demo {

namespace {

using platform::DataTaskCompletion;
using platform::DispatchQueue;
using platform::URLRequest;
using platform::URLSession;
using platform::URLSessionDownloadDelegate;
using platform::URLSessionTask;
using platform::Work;

class CountingQueue final : public DispatchQueue {
 public:
  CountingQueue(std::shared_ptr<DispatchQueue> inner, std::shared_ptr<PendingWork> pending)
      : inner_(std::move(inner)), pending_(std::move(pending)) {}
  const std::string& label() const noexcept override { return inner_->label(); }
  void async(Work work) noexcept override { inner_->async(counted(std::move(work))); }
  void asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept override {
    inner_->asyncAfter(delay, counted(std::move(work)));
  }
  bool isCurrent() const noexcept override { return inner_->isCurrent(); }

 private:
  Work counted(Work work) {
    pending_->begin();
    return [work = std::move(work), pending = pending_] {
      work();
      pending->end();
    };
  }
  std::shared_ptr<DispatchQueue> inner_;
  std::shared_ptr<PendingWork> pending_;
};

class CountingDispatcher final : public platform::Dispatcher {
 public:
  CountingDispatcher(std::shared_ptr<platform::Dispatcher> inner,
                     std::shared_ptr<PendingWork> pending)
      : inner_(std::move(inner)), pending_(std::move(pending)) {}
  std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label) override {
    return std::make_shared<CountingQueue>(inner_->makeSerialQueue(std::move(label)), pending_);
  }
  // The main and global queues are one object each, as the library expects.
  std::shared_ptr<DispatchQueue> mainQueue() override { return wrapped(inner_->mainQueue()); }
  std::shared_ptr<DispatchQueue> globalQueue() override { return wrapped(inner_->globalQueue()); }

 private:
  std::shared_ptr<DispatchQueue> wrapped(const std::shared_ptr<DispatchQueue>& queue) {
    const std::lock_guard lock(mutex_);
    auto& slot = wrappers_[queue.get()];
    if (!slot)
      slot = std::make_shared<CountingQueue>(queue, pending_);
    return slot;
  }
  std::shared_ptr<platform::Dispatcher> inner_;
  std::shared_ptr<PendingWork> pending_;
  std::mutex mutex_;
  std::map<const DispatchQueue*, std::shared_ptr<DispatchQueue>> wrappers_;
};

// Counts a task from its creation (the library starts every task it makes at once) to its
// completion.
class CountingSession final : public URLSession {
 public:
  CountingSession(std::shared_ptr<URLSession> inner, std::shared_ptr<PendingWork> pending)
      : inner_(std::move(inner)), pending_(std::move(pending)) {}
  std::shared_ptr<URLSessionTask> dataTask(URLRequest request,
                                           DataTaskCompletion completion) override {
    pending_->begin();
    return inner_->dataTask(std::move(request),
                            [completion = std::move(completion), pending = pending_](
                                const auto& body, const auto& response, const auto& error) {
                              if (completion)
                                completion(body, response, error);
                              pending->end();
                            });
  }
  std::shared_ptr<URLSessionTask> downloadTask(URLRequest request) override {
    pending_->begin();
    return inner_->downloadTask(std::move(request));
  }
  std::shared_ptr<DispatchQueue> delegateQueue() override { return inner_->delegateQueue(); }

 private:
  std::shared_ptr<URLSession> inner_;
  std::shared_ptr<PendingWork> pending_;
};

// Ends the count of a download task when its outcome is delivered.
class CountingDownloadDelegate final : public URLSessionDownloadDelegate {
 public:
  CountingDownloadDelegate(std::weak_ptr<URLSessionDownloadDelegate> inner,
                           std::shared_ptr<PendingWork> pending)
      : inner_(std::move(inner)), pending_(std::move(pending)) {}
  void didFinishDownloadingToPath(URLSessionTask& task, const std::string& path) override {
    if (const auto inner = inner_.lock())
      inner->didFinishDownloadingToPath(task, path);
  }
  void didCompleteWithError(URLSessionTask& task, const std::optional<Error>& error) override {
    if (const auto inner = inner_.lock())
      inner->didCompleteWithError(task, error);
    pending_->end();
  }

 private:
  std::weak_ptr<URLSessionDownloadDelegate> inner_;
  std::shared_ptr<PendingWork> pending_;
};

class CountingSessionFactory final : public platform::URLSessionFactory {
 public:
  CountingSessionFactory(std::shared_ptr<platform::URLSessionFactory> inner,
                         std::shared_ptr<PendingWork> pending)
      : inner_(std::move(inner)), pending_(std::move(pending)) {}
  std::shared_ptr<URLSession> sharedSession() override {
    const std::lock_guard lock(mutex_);
    if (!shared_)
      shared_ = std::make_shared<CountingSession>(inner_->sharedSession(), pending_);
    return shared_;
  }
  std::shared_ptr<URLSession> backgroundSession(
      const platform::BackgroundSessionConfiguration& configuration,
      std::weak_ptr<URLSessionDownloadDelegate> delegate) override {
    auto counting = std::make_shared<CountingDownloadDelegate>(std::move(delegate), pending_);
    auto session = std::make_shared<CountingSession>(
        inner_->backgroundSession(configuration, counting), pending_);
    const std::lock_guard lock(mutex_);
    // The session holds its delegate weakly; the demo keeps it for the process's life.
    delegates_.push_back(std::move(counting));
    return session;
  }

 private:
  std::shared_ptr<platform::URLSessionFactory> inner_;
  std::shared_ptr<PendingWork> pending_;
  std::mutex mutex_;
  std::shared_ptr<URLSession> shared_;
  std::vector<std::shared_ptr<URLSessionDownloadDelegate>> delegates_;
};

}  // namespace

void PendingWork::begin() {
  const std::lock_guard lock(mutex_);
  ++count_;
}

void PendingWork::end() {
  const std::lock_guard lock(mutex_);
  if (--count_ == 0)
    idle_.notify_all();
}

int PendingWork::pending() const {
  const std::lock_guard lock(mutex_);
  return count_;
}

bool PendingWork::waitUntilIdle(std::chrono::milliseconds bound) {
  std::unique_lock lock(mutex_);
  return idle_.wait_for(lock, bound, [this] { return count_ == 0; });
}

Platform countingPendingWork(Platform platform, const std::shared_ptr<PendingWork>& pending) {
  platform.dispatcher = std::make_shared<CountingDispatcher>(platform.dispatcher, pending);
  platform.urlSessions = std::make_shared<CountingSessionFactory>(platform.urlSessions, pending);
  return platform;
}

}  // namespace quorvel::demo
