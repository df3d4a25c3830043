// An HTTPS server on loopback for integration tests, with the emulator's certificates made
// for the run and its listener thread.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <httplib.h>

#include "Certificates.h"
#include "ListenerThread.h"
#include "support/TempDir.h"

namespace quorvel::test {

struct ReceivedRequest {
  std::string host;    // the Host header
  std::string target;  // path with query, as sent
  std::string body;
  int clientPort = 0;  // tells the client's connections apart
};

class TlsTestServer {
 public:
  // Certificates name every host in `hosts` (plus localhost and 127.0.0.1); any free port.
  explicit TlsTestServer(std::vector<std::string> hosts);

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

 private:
  TempDir dir_;
  devserver::CertificateFiles certificates_;
  int port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<ReceivedRequest> received_;
  std::function<void(const httplib::Request&, httplib::Response&)> handler_;
  devserver::ListenerThread listener_;  // last: stopped before the state its handler uses
};

}  // namespace quorvel::test
