// Plain HTTP on loopback for switching faults and settings while the emulator runs. It has
// to stay reachable while the HTTPS side is offline, so it is a server of its own.
//
//   GET  /faults                          the current faults and settings
//   POST /faults/offline[?seconds=N]      refuse connections (for N seconds)
//   POST /faults/online
//   POST /faults/status?service=S&code=N  answer N on service S ("*": all; 0 removes)
//   POST /faults/delay?service=S&ms=N     answer S after N ms (0 removes)
//   POST /faults/clear
//   POST /monitor?value=N                 the "monitor" value of tracking answers
//   GET  /stats                           TLS connections accepted, per server name
//   GET  /                                the web inspector (a page on the endpoints below)
//   GET  /requests?after=ID               requests recorded after ID, newest first (200 at most)
//   GET  /services                        the service prefixes the emulator answers
//
// A web page open in the developer's browser can reach this port too (a form post, or DNS
// rebinding of its own host name to 127.0.0.1). So every request must name this port by a
// loopback host; everything but the inspector page itself (recorded requests carry developer
// keys and clear payloads) must carry this run's token (the page and server.json have it);
// a state change from a browser must come from the inspector's own origin; and no answer may
// be framed by another page.
#pragma once

#include <memory>
#include <string>
#include <thread>

#include "Emulator.h"
#include "Faults.h"
#include "ListenerThread.h"
#include "RequestStore.h"

namespace quorvel::devserver {

class AdminServer {
 public:
  AdminServer(Emulator& emulator, Faults& faults, const RequestStore& store, Emulator::LogSink log);
  ~AdminServer();
  AdminServer(const AdminServer&) = delete;
  AdminServer& operator=(const AdminServer&) = delete;

  // Binds 127.0.0.1:port (0: any); throws std::runtime_error when it cannot.
  void start(int port);
  void stop();
  int port() const { return port_; }
  // The token that every call but the page carries in the "X-Quorvel-Admin-Token" header.
  const std::string& token() const { return token_; }
  static constexpr const char* kTokenHeader = "X-Quorvel-Admin-Token";

 private:
  Json state() const;

  Emulator& emulator_;
  Faults& faults_;
  const RequestStore& store_;
  Emulator::LogSink log_;
  ListenerThread listener_;
  int port_ = 0;
  std::string token_;
};

}  // namespace quorvel::devserver
