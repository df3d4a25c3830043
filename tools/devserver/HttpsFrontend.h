// The emulator on the network: an HTTPS server on loopback that hands every request to the
// emulator, and that stops listening (so that connections are refused) while the faults
// say it is offline.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Certificates.h"
#include "Emulator.h"
#include "Faults.h"
#include "ListenerThread.h"

namespace quorvel::devserver {

// TLS connections accepted by this process so far, per server name the client asked for
// ("" when it sent none): {"t.localhost": 6, ...}.
Json acceptedConnections();

class HttpsFrontend {
 public:
  HttpsFrontend(Emulator& emulator, const Faults& faults, CertificateFiles certificates,
                std::string address, Emulator::LogSink log);
  ~HttpsFrontend();
  HttpsFrontend(const HttpsFrontend&) = delete;
  HttpsFrontend& operator=(const HttpsFrontend&) = delete;

  // Binds `port` (0: any free port) and starts serving. Throws std::runtime_error when the
  // certificates do not load or the port cannot be bound.
  void start(int port);
  void stop();
  int port() const { return port_; }

 private:
  std::unique_ptr<httplib::SSLServer> makeServer();
  bool goOnline();
  void goOffline();
  void supervise();

  Emulator& emulator_;
  const Faults& faults_;
  CertificateFiles certificates_;
  std::string address_;
  Emulator::LogSink log_;
  int port_ = 0;

  std::mutex mutex_;
  ListenerThread listener_;
  std::atomic<bool> stopping_{false};
  std::thread supervisor_;
};

}  // namespace quorvel::devserver
