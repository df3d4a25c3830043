// URL sessions on libcurl: one worker thread drives a curl multi handle; completions and
// delegate calls run on the session's own serial callback queue.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <quorvel/platform/URLSession.h>

namespace quorvel::platform {

struct CurlSessionOptions {
  std::optional<std::string> extraCAFile;  // PEM, trusted besides the system's CAs
  std::chrono::milliseconds requestTimeout{60'000};
  std::size_t maxResponseBytes = 4 * 1024 * 1024;
  std::string downloadDirectory = "/tmp";  // where download tasks put their bodies
};

class CurlURLSession;

class CurlURLSessionFactory final : public URLSessionFactory {
 public:
  explicit CurlURLSessionFactory(CurlSessionOptions options);
  std::shared_ptr<URLSession> sharedSession() override;
  std::shared_ptr<URLSession> backgroundSession(
      const BackgroundSessionConfiguration& configuration,
      std::weak_ptr<URLSessionDownloadDelegate> delegate) override;

 private:
  CurlSessionOptions options_;
  std::mutex mutex_;
  std::shared_ptr<URLSession> shared_;
};

// Makes a session directly (tests; the factory makes the process's sessions).
std::shared_ptr<URLSession> makeCurlURLSession(
    const CurlSessionOptions& options, std::string label,
    std::weak_ptr<URLSessionDownloadDelegate> delegate = {});

}  // namespace quorvel::platform
