// An HTTPS server on loopback for integration tests, with a certificate made for the run.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "support/TempDir.h"
#include "support/TestCertificates.h"

namespace quorvel::test {

struct ReceivedRequest {
  std::string method;
  std::string host;  // the Host header
  std::string path;
  std::string target;  // path with query, as sent
  std::multimap<std::string, std::string> headers;
  std::string body;
  int clientPort = 0;  // tells the client's connections apart
  std::string header(const std::string& name) const;
};

class TlsTestServer {
 public:
  // Certificates name every host in `hosts` (plus localhost and 127.0.0.1).
  // `port` 0 takes any free port. `certificates` reuses those of an earlier server, so
  // that a client keeps trusting a server that comes back.
  explicit TlsTestServer(std::vector<std::string> hosts = {}, int port = 0,
                         std::optional<TestCertificates> certificates = std::nullopt);
  const TestCertificates& certificates() const { return certificates_; }
  ~TlsTestServer();

  int port() const { return port_; }
  const std::string& caFile() const { return certificates_.caFile; }
  // "localhost:PORT": the service domain to give the library.
  std::string domain() const { return "localhost:" + std::to_string(port_); }

  // Replaces the handler of every request; the default answers 200 {}.
  void onRequest(std::function<void(const httplib::Request&, httplib::Response&)> handler);
  std::vector<ReceivedRequest> received() const;
  // Waits (bounded) until at least `count` requests have arrived.
  bool waitForRequests(std::size_t count,
                       std::chrono::milliseconds bound = std::chrono::seconds(20)) const;

  httplib::SSLServer& server() { return *server_; }

 private:
  TempDir dir_;
  TestCertificates certificates_;
  std::unique_ptr<httplib::SSLServer> server_;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<ReceivedRequest> received_;
  std::function<void(const httplib::Request&, httplib::Response&)> handler_;
};

}  // namespace quorvel::test
