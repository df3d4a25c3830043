// The host's transport through the C API: each request is handed over with a reply handle
// that carries the library's completion until the host answers.
#include <quorvel/Transport.h>
#include <quorvel/quorvel.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "capi/CTracker.h"
#include "platform/ForkGeneration.h"
#include "platform/SendTicket.h"

namespace quorvel::capi {
namespace {

// The requests the host has not answered yet. A reply handle is a number, never an address, and
// never handed out twice: a second answer to one (a host's mistake, or a race in a binding) finds
// nothing and is ignored, where an address would be freed twice. A request the host never
// answers goes (failed as timed out, its body freed) at the first request past its timeout,
// where the library's own deadline fails it anyway: none is kept for ever.
class OpenReplies {
 public:
  using Clock = std::chrono::steady_clock;

  // `takes`: whether the host's transport takes requests (quorvel_transport_take) before it
  // sends them: then this one is queued until taken.
  quorvel_transport_reply* add(TransportDone done, std::chrono::milliseconds timeout,
                               std::shared_ptr<std::atomic<bool>> takes,
                               std::shared_ptr<const CallGate> gate) {
    std::vector<Expired> expired;
    std::uintptr_t id = 0;
    {
      const std::lock_guard lock(mutex_);
      const auto now = Clock::now();
      if (now >= nextExpiry_)
        expired = takeExpiredLocked(now);
      id = ++last_;
      const auto deadline = now + timeout;
      auto ticket = platform::currentSendTicket();
      if (ticket && *takes) {
        int nothing = platform::SendTicket::nothing;
        ticket->hostSays.compare_exchange_strong(nothing, platform::SendTicket::queued);
      }
      open_.emplace(id, Open{std::move(done), deadline, std::move(ticket), std::move(takes),
                             std::move(gate)});
      nextExpiry_ = std::min(nextExpiry_, deadline);
    }
    for (const Expired& late : expired) {
      late.done(std::nullopt,
                late.neverLeft ? Error{platform::kURLErrorDomain, -1004,
                                       "the host's transport had not sent it"}
                               : Error{platform::kURLErrorDomain, -1001, "The request timed out."});
    }
    return reinterpret_cast<quorvel_transport_reply*>(id);  // NOLINT: an opaque handle
  }
  // Empty when already answered.
  TransportDone take(const quorvel_transport_reply* reply) noexcept {
    const std::lock_guard lock(mutex_);
    auto node = open_.extract(reinterpret_cast<std::uintptr_t>(reply));  // NOLINT
    return node.empty() ? TransportDone() : std::move(node.mapped().done);
  }
  // Still awaited: not answered, and its deadline not passed.
  bool pending(const quorvel_transport_reply* reply) noexcept {
    const std::lock_guard lock(mutex_);
    const auto it = open_.find(reinterpret_cast<std::uintptr_t>(reply));  // NOLINT
    return it != open_.end() && awaited(it->second);
  }
  // The host takes it out of its queue to send it: from then on it may reach the service.
  // "Taken" is said before the look at the cancel, so that a stop that finds it unsaid knows
  // that the host will not send it.
  // Refused, the request ends here, as if the host had failed it: a host may drop what it was
  // refused, and what the request holds (its report, its tracker's threads) must not wait for
  // an answer that never comes.
  bool takeToSend(const quorvel_transport_reply* reply) noexcept {
    TransportDone refused;
    {
      const std::lock_guard lock(mutex_);
      const auto it = open_.find(reinterpret_cast<std::uintptr_t>(reply));  // NOLINT
      if (it == open_.end())
        return false;
      const Open& open = it->second;
      *open.takes = true;
      const int before =
          open.ticket ? open.ticket->hostSays.exchange(platform::SendTicket::taken) : 0;
      if (awaited(open))
        return true;
      // It will not be sent now; one taken before may have been.
      if (open.ticket && before != platform::SendTicket::taken)
        open.ticket->hostSays = platform::SendTicket::queued;
      refused = std::move(it->second.done);
      open_.erase(it);
    }
    if (refused) {
      try {
        refused(std::nullopt,
                Error{platform::kURLErrorDomain, -1004, "given up before it was sent"});
      } catch (...) {
        // The library's completion never throws; out of memory, the request ends unanswered.
      }
    }
    return false;
  }
  void lockForFork() noexcept { mutex_.lock(); }
  void unlockAfterFork() noexcept { mutex_.unlock(); }

 private:
  struct Open {
    TransportDone done;
    Clock::time_point deadline;
    // Cancelled when the library gave the request up (a stop, a forgetting): no longer awaited.
    platform::SendTicketPtr ticket;
    std::shared_ptr<std::atomic<bool>> takes;  // its transport's
    // Its tracker's: once destroyed, what its host still queues is given up (the report goes
    // again at the next start, and a copy sent now as well would be a repeat).
    std::shared_ptr<const CallGate> gate;
  };
  static bool awaited(const Open& open) noexcept {
    return Clock::now() < open.deadline &&
           !(open.ticket && (open.ticket->cancelled || open.ticket->ended)) &&
           !(open.gate && open.gate->gaveUpHeld());
  }
  struct Expired {
    TransportDone done;
    bool neverLeft = false;
  };

  std::vector<Expired> takeExpiredLocked(Clock::time_point now) {
    std::vector<Expired> expired;
    nextExpiry_ = Clock::time_point::max();
    for (auto it = open_.begin(); it != open_.end();) {
      if (it->second.deadline <= now) {
        const auto& ticket = it->second.ticket;
        expired.push_back({std::move(it->second.done), ticket && ticket->heldUnsentByHost()});
        it = open_.erase(it);
      } else {
        nextExpiry_ = std::min(nextExpiry_, it->second.deadline);
        ++it;
      }
    }
    return expired;
  }

  std::mutex mutex_;
  std::unordered_map<std::uintptr_t, Open> open_;
  std::uintptr_t last_ = 0;
  Clock::time_point nextExpiry_ = Clock::time_point::max();
};

// Never destroyed: a host may answer on its own threads while the process exits. Held across
// a fork, so that a child never inherits it locked by a thread that did not come along: its
// host's answers (to its own trackers' requests) would wait for ever.
OpenReplies& openReplies() {
  static auto* const replies = [] {
    auto* made = new OpenReplies;  // NOLINT(cppcoreguidelines-owning-memory)
    platform::lockAcrossForks([] { openReplies().lockForFork(); },
                              [] { openReplies().unlockAfterFork(); });
    return made;
  }();
  return *replies;
}

std::string headerLines(const platform::HeaderList& headers) {
  std::string lines;
  for (const auto& [name, value] : headers)
    lines.append(name).append(": ").append(value).append("\r\n");
  return lines;
}

platform::HeaderList parseHeaderLines(std::string_view text) {
  platform::HeaderList headers;
  while (!text.empty()) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (!line.empty() && line.back() == '\r')
      line.remove_suffix(1);
    const auto colon = line.find(':');
    if (colon == std::string_view::npos)
      continue;
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && value.front() == ' ')
      value.remove_prefix(1);
    headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
  }
  return headers;
}

void answer(const quorvel_transport_reply* reply, std::optional<TransportResponse> response,
            std::optional<Error> failure) {
  if (const TransportDone done = openReplies().take(reply))
    done(std::move(response), std::move(failure));
}

void failRequest(const TransportDone& done, const char* message) {
  if (done)
    done(std::nullopt, Error{platform::kURLErrorDomain, -1004, message});
}

class CTransport final : public Transport {
 public:
  CTransport(quorvel_transport_send send, void* userData, std::shared_ptr<CallGate> gate)
      : send_(send), userData_(userData), gate_(std::move(gate)) {}

  void send(TransportRequest request, TransportDone done) override {
    // Once the handle is destroyed the host's transport state may be gone: never call it.
    ReleaseHold hold;  // declared first, so let go once the gate is left
    if (!gate_->enter(hold))
      return failRequest(done, "the tracker was destroyed");
    const Leave leave{*gate_};
    const HostCallScope inside(gate_.get(), HostCallScope::Kind::send);
    quorvel_transport_request c{};
    std::string headers;
    quorvel_transport_reply* reply = nullptr;
    try {
      headers = headerLines(request.headers);
      // The host's from here until it answers.
      reply = openReplies().add(done, request.timeout, takes_, gate_);
    } catch (...) {
      return failRequest(done, "transport failed");
    }
    c.struct_size = sizeof c;
    c.method = request.method.data();
    c.method_length = request.method.size();
    c.url = request.url.data();
    c.url_length = request.url.size();
    c.headers = headers.data();
    c.headers_length = headers.size();
    c.body = request.body.data();
    c.body_length = request.body.size();
    c.timeout_ms = static_cast<std::uint32_t>(request.timeout.count());
    // Given up (a stop) while it was made ready: the host never sees it.
    if (const auto ticket = platform::currentSendTicket(); ticket && ticket->cancelled)
      return failRequest(openReplies().take(reply), "given up before it was sent");
    // Outside any catch (...): a host thread ended under the call (a forced unwind) must not
    // be swallowed here.
    send_(userData_, &c, reply);
  }

 private:
  class Leave {
   public:
    explicit Leave(CallGate& gate) : gate_(gate) {}
    Leave(const Leave&) = delete;
    Leave& operator=(const Leave&) = delete;
    ~Leave() { gate_.leave(); }

   private:
    CallGate& gate_;
  };

  quorvel_transport_send send_;
  void* userData_;
  std::shared_ptr<CallGate> gate_;
  // Set once the host takes a request out of its queue (quorvel_transport_take).
  std::shared_ptr<std::atomic<bool>> takes_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace

std::shared_ptr<Transport> makeCTransport(quorvel_transport_send send, void* userData,
                                          std::shared_ptr<CallGate> gate) {
  return std::make_shared<CTransport>(send, userData, std::move(gate));
}

}  // namespace quorvel::capi

extern "C" {

void quorvel_transport_respond(quorvel_transport_reply* reply, int status, const char* headers,
                               size_t headers_length, const uint8_t* body, size_t body_length) {
  std::optional<quorvel::TransportResponse> response;
  try {
    response.emplace();
    response->status = status;
    if (headers != nullptr)
      response->headers =
          quorvel::capi::parseHeaderLines(std::string_view(headers, headers_length));
    if (body != nullptr)
      response->body.assign(body, body + body_length);
  } catch (...) {
    // An answer came, so the request reached the service: not "cannot connect" (-1004), which
    // would make its next copy no repeat.
    return quorvel::capi::answer(
        reply, std::nullopt,
        quorvel::Error{quorvel::platform::kURLErrorDomain, -1017, "the answer could not be read"});
  }
  quorvel::capi::answer(reply, std::move(response), std::nullopt);
}

int quorvel_transport_pending(const quorvel_transport_reply* reply) {
  return quorvel::capi::openReplies().pending(reply) ? 1 : 0;
}

int quorvel_transport_take(quorvel_transport_reply* reply) {
  return quorvel::capi::openReplies().takeToSend(reply) ? 1 : 0;
}

void quorvel_transport_fail(quorvel_transport_reply* reply, int64_t code, const char* message,
                            size_t message_length) {
  std::string text;
  try {
    text = message != nullptr ? std::string(message, message_length) : std::string();
  } catch (...) {
  }
  quorvel::capi::answer(reply, std::nullopt,
                        quorvel::Error{quorvel::platform::kURLErrorDomain, code, text});
}

}  // extern "C"
