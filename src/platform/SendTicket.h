// How far one request handed to a host's transport went, as the send lane and the C API's reply
// handle learn it: whether the library gave it up (a stop, a forgetting) and whether the host's
// transport took it out to send. Set by the send lanes around each call into the host; read by
// a host transport that queues requests, and by the library when it decides whether a copy may
// have reached the service (which makes its next copy a repeat).
#pragma once

#include <atomic>
#include <memory>

namespace quorvel::platform {

class URLSessionTask;

struct SendTicket {
  // Given up: no longer awaited, and never to leave once the stop returned.
  std::atomic<bool> cancelled{false};
  // Its outcome is decided (its deadline, a failure): no longer awaited either.
  std::atomic<bool> ended{false};
  // The host's transport was called with it.
  std::atomic<bool> handedToHost{false};
  // What the host said of it: nothing (a transport that sends what it is given), queued (its
  // transport takes each request before it sends it, and had not taken this one), or taken.
  enum HostSays : int { nothing, queued, taken };
  std::atomic<int> hostSays{nothing};

  // Queued by a transport that takes each request before it sends it, never taken: it never
  // left.
  bool heldUnsentByHost() const noexcept { return hostSays.load() == queued; }
  bool mayHaveLeft() const noexcept { return handedToHost.load() && !heldUnsentByHost(); }
};
using SendTicketPtr = std::shared_ptr<SendTicket>;

// The ticket of the request handed to the host's transport on this thread now; empty outside
// such a call.
SendTicketPtr currentSendTicket() noexcept;

// For the span of one call into the host's transport.
class SendTicketScope {
 public:
  explicit SendTicketScope(SendTicketPtr ticket) noexcept;
  ~SendTicketScope();
  SendTicketScope(const SendTicketScope&) = delete;
  SendTicketScope& operator=(const SendTicketScope&) = delete;

 private:
  SendTicketPtr previous_;
};

// Whether `task`'s request may have reached the service, for a task cancelled before its outcome
// came: a task of the library's own sessions knows whether it was handed over (to a connection,
// or to the host's transport); a task of another kind is taken to have left once it was made.
bool taskMayHaveLeft(const URLSessionTask& task) noexcept;

// Implemented by the library's own tasks.
class HandOverAware {
 public:
  virtual bool requestMayHaveLeft() const noexcept = 0;

 protected:
  HandOverAware() = default;
  HandOverAware(const HandOverAware&) = default;
  HandOverAware& operator=(const HandOverAware&) = default;
  ~HandOverAware() = default;
};

}  // namespace quorvel::platform
