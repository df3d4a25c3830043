// URL loading: a shared session with data tasks, and background sessions with download
// tasks whose outcome reaches a delegate.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <quorvel/Error.h>
#include <quorvel/Json.h>
#include <quorvel/platform/DispatchQueue.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct URLRequest {
  std::string url;
  std::string method = "GET";
  HeaderList headers;
  Bytes body;
  // Unset: the session's default request timeout.
  std::optional<std::chrono::milliseconds> timeout;
};

struct URLResponse {
  std::string url;
  long statusCode = 0;
  HeaderList headers;
  std::string mimeType;
};

// Error domain of transport failures reported by a session.
inline constexpr const char* kURLErrorDomain = "NSURLErrorDomain";

class URLSessionTask {
 public:
  URLSessionTask() = default;
  URLSessionTask(const URLSessionTask&) = delete;
  URLSessionTask& operator=(const URLSessionTask&) = delete;
  virtual ~URLSessionTask() = default;

  virtual std::uint64_t taskIdentifier() const noexcept = 0;
  virtual const URLRequest& originalRequest() const noexcept = 0;
  // Starts the task. Any thread; returns at once.
  virtual void resume() noexcept = 0;
  virtual void cancel() noexcept = 0;
  // "<TaskClass: 0x...> { taskIdentifier: N }"-like text for log lines.
  virtual std::string description() const = 0;
};

// Exactly one of (body and response) or error is set when a data task completes.
using DataTaskCompletion =
    std::function<void(const std::optional<Bytes>& body, const std::optional<URLResponse>& response,
                       const std::optional<Error>& error)>;

// Receives the outcome of background download tasks, on the session's delegate queue.
class URLSessionDownloadDelegate {
 public:
  virtual ~URLSessionDownloadDelegate() = default;
  virtual void didFinishDownloadingToPath(URLSessionTask& task, const std::string& path) = 0;
  virtual void didCompleteWithError(URLSessionTask& task, const std::optional<Error>& error) = 0;
};

struct BackgroundSessionConfiguration {
  std::string identifier;
  bool allowsCellularAccess = true;
  bool sessionSendsLaunchEvents = false;
};

class URLSession {
 public:
  URLSession() = default;
  URLSession(const URLSession&) = delete;
  URLSession& operator=(const URLSession&) = delete;
  virtual ~URLSession() = default;

  // A data task whose completion runs on delegateQueue(). Not started until resume().
  virtual std::shared_ptr<URLSessionTask> dataTask(URLRequest request,
                                                   DataTaskCompletion completion) = 0;
  // A download task (background sessions); its outcome goes to the session's delegate.
  virtual std::shared_ptr<URLSessionTask> downloadTask(URLRequest request) = 0;
  // The serial queue on which completions and delegate calls run.
  virtual std::shared_ptr<DispatchQueue> delegateQueue() = 0;
};

class URLSessionFactory {
 public:
  URLSessionFactory() = default;
  URLSessionFactory(const URLSessionFactory&) = delete;
  URLSessionFactory& operator=(const URLSessionFactory&) = delete;
  virtual ~URLSessionFactory() = default;

  // The process-wide shared session.
  virtual std::shared_ptr<URLSession> sharedSession() = 0;
  // A new session with the default configuration, for work that should not share the
  // library's session (opening a promotion link, counting an impression). A factory that
  // cannot make sessions may hand out its shared one.
  virtual std::shared_ptr<URLSession> defaultSession() { return sharedSession(); }
  // A background session whose download outcomes go to `delegate` (held weakly).
  virtual std::shared_ptr<URLSession> backgroundSession(
      const BackgroundSessionConfiguration& configuration,
      std::weak_ptr<URLSessionDownloadDelegate> delegate) = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
