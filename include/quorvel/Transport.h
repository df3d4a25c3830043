// A transport the host brings instead of libcurl: an engine's or a sandbox's own HTTP stack,
// with its own TLS policy. The library hands each request over on one of four send threads of
// its own (a send that blocks holds only its thread) and waits for one answer or one failure,
// from any thread; a request with no outcome a second past its timeout fails as timed out.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <quorvel/Error.h>
#include <quorvel/Json.h>
#include <quorvel/platform/DispatchQueue.h>
#include <quorvel/platform/URLSession.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

struct TransportRequest {
  std::string method;  // "GET" or "POST"
  std::string url;     // always https in production
  platform::HeaderList headers;
  Bytes body;
  std::chrono::milliseconds timeout{60'000};  // give up (and fail) after this long
};

struct TransportResponse {
  long status = 0;
  platform::HeaderList headers;
  Bytes body;
};

// Call exactly once per request: with the service's answer (whatever its status), or with a
// failure when no answer came (no network, a timeout, a refused certificate). Any thread.
using TransportDone =
    std::function<void(std::optional<TransportResponse> response, std::optional<Error> failure)>;

class Transport {
 public:
  Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  virtual ~Transport() = default;

  // Starts the request and returns without waiting for it; `done` may also be called before
  // this returns. Never throws; not noexcept only so that a thread ended under a blocking send
  // (a forced unwind, as an interpreter does to foreign threads at exit) unwinds through it.
  virtual void send(TransportRequest request, TransportDone done) = 0;
};

// The library's sessions on a host's transport. Completions run on queues of `dispatcher`;
// what background sessions download is handed over as files in `downloadDirectory`.
std::shared_ptr<platform::URLSessionFactory> makeTransportSessions(
    std::shared_ptr<Transport> transport, std::shared_ptr<platform::Dispatcher> dispatcher,
    std::string downloadDirectory);

}  // namespace quorvel

#pragma GCC visibility pop
