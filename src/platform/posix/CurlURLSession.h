// URL sessions on libcurl: a worker thread drives a curl multi handle while there are
// transfers (it ends after 0.5 s without); completions and delegate calls run on the
// session's own serial callback queue. Like the platform's own sessions, a session opens a
// few connections per host and reuses them: TLS sessions and DNS answers are shared by every
// transfer of the session, and the trust store by every session that trusts the same CAs.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <quorvel/platform/DispatchQueue.h>
#include <quorvel/platform/SystemLog.h>
#include <quorvel/platform/URLSession.h>

namespace quorvel::platform {

struct CurlSessionOptions {
  std::optional<std::string> extraCAFile;  // PEM, trusted besides the system's CAs
  std::chrono::milliseconds requestTimeout{60'000};
  std::size_t maxResponseBytes = std::size_t{4} * 1024 * 1024;
  // Connections to one host at most; requests beyond them wait in the session.
  std::size_t maxConnectionsPerHost = 6;
  // When set, counts every connection the session opens (benchmarks and tests read it).
  std::shared_ptr<std::atomic<std::uint64_t>> connectionsOpened;
  std::string downloadDirectory = "/tmp";  // where download tasks put their bodies
  // A worker with nothing to do for this long ends: an idle library holds no thread for a
  // session, and a session the library made but seldom uses holds none under a burst.
  std::chrono::milliseconds workerIdleTime{500};
  // Makes the session's callback queue (a lane of the platform's pool); a thread of the
  // session's own when not given.
  std::shared_ptr<Dispatcher> dispatcher;
  // Where a refused redirect is told at warning level: a service that points the library
  // elsewhere is worth a look even when debug logs are off.
  std::shared_ptr<SystemLog> systemLog;
};

class CurlURLSession;

class CurlURLSessionFactory final : public URLSessionFactory {
 public:
  explicit CurlURLSessionFactory(CurlSessionOptions options);
  std::shared_ptr<URLSession> sharedSession() override;
  std::shared_ptr<URLSession> defaultSession() override;
  std::shared_ptr<URLSession> backgroundSession(
      const BackgroundSessionConfiguration& configuration,
      std::weak_ptr<URLSessionDownloadDelegate> delegate) override;

 private:
  CurlSessionOptions options_;
  std::mutex mutex_;
  std::shared_ptr<URLSession> shared_;
  std::vector<std::shared_ptr<CurlURLSession>> defaults_;
};

// Makes a session directly (tests; the factory makes the process's sessions).
std::shared_ptr<URLSession> makeCurlURLSession(
    const CurlSessionOptions& options, std::string label,
    std::weak_ptr<URLSessionDownloadDelegate> delegate = {});

}  // namespace quorvel::platform
