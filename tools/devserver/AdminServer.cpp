#include "AdminServer.h"

#include <stdexcept>
#include <string_view>

#include <httplib.h>
#include <openssl/rand.h>

#include "HttpsFrontend.h"
#include "InspectorPage.h"
#include "SafeText.h"

namespace quorvel::devserver {

namespace {

std::optional<long> numberParam(const httplib::Request& req, const char* name) {
  if (!req.has_param(name))
    return std::nullopt;
  const std::string text = req.get_param_value(name);
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
    return std::nullopt;
  return std::stol(text);
}

void answer(httplib::Response& res, int status, const Json& body) {
  res.status = status;
  res.set_content(safeJsonText(body) + "\n", "application/json");
}

// A request as the inspector lists it.
Json describe(const StoredRequest& r) {
  Json event;
  if (r.decrypted && r.decrypted->is_object() && r.decrypted->contains("event"))
    event = (*r.decrypted)["event"];
  return Json{{"id", r.id},
              {"time", r.time},
              {"method", r.method},
              {"host", r.host},
              {"service", r.service},
              {"path", r.path},
              {"query", r.query},
              {"event", event},
              {"status", r.status},
              {"note", r.note},
              {"headers", r.headers},
              {"decrypted", r.decrypted ? *r.decrypted : Json()},
              {"body_size", r.body.size()}};
}

std::string randomToken() {
  unsigned char bytes[16];
  if (RAND_bytes(bytes, sizeof bytes) != 1)
    throw std::runtime_error("no random bytes for the admin token");
  static constexpr char kHex[] = "0123456789abcdef";
  std::string token;
  for (const unsigned char b : bytes) {
    token.push_back(kHex[b >> 4U]);
    token.push_back(kHex[b & 0xFU]);
  }
  return token;
}

bool isOneOf(const std::string& value, const std::string& prefix, int port) {
  for (const char* host : {"127.0.0.1", "localhost", "[::1]"}) {
    if (value == prefix + host + ":" + std::to_string(port))
      return true;
  }
  return false;
}

// Why a request is refused, or null when it may go on. Fixed texts, not strings: GCC 12 at -O2
// misreads a string built from them here as copied out of bounds.
constexpr const char* kNeedsToken =
    "everything but the inspector page needs this run's token in X-Quorvel-Admin-Token";
static_assert(std::string_view(kNeedsToken).ends_with(AdminServer::kTokenHeader));

const char* refusal(const httplib::Request& req, int port, const std::string& token) {
  if (!isOneOf(req.get_header_value("Host"), "", port))
    return "the Host header must name this port on 127.0.0.1, localhost or [::1]";
  const bool read = req.method == "GET" || req.method == "HEAD";
  // The page is what hands the token out; another site's page cannot read it (no frames,
  // no cross-origin reads) and without it reads nothing.
  if (read && req.path == "/")
    return nullptr;
  if (!read && req.has_header("Origin") &&
      !isOneOf(req.get_header_value("Origin"), "http://", port))
    return "state changes come from the inspector's own origin only";
  if (req.get_header_value(AdminServer::kTokenHeader) != token)
    return kNeedsToken;
  return nullptr;
}

}  // namespace

AdminServer::AdminServer(Emulator& emulator, Faults& faults, const RequestStore& store,
                         Emulator::LogSink log)
    : emulator_(emulator),
      faults_(faults),
      store_(store),
      log_(std::move(log)),
      token_(randomToken()) {}

AdminServer::~AdminServer() {
  stop();
}

Json AdminServer::state() const {
  Json state = faults_.describe(Faults::Clock::now());
  state["monitor"] = emulator_.monitor();
  return state;
}

void AdminServer::start(int port) {
  auto server = std::make_unique<httplib::Server>();
  auto& s = *server;
  // Nothing of this port may be shown inside another site's page: a frame would let that page
  // steer the inspector's buttons.
  s.set_default_headers(
      {{"X-Frame-Options", "DENY"}, {"Content-Security-Policy", "frame-ancestors 'none'"}});
  s.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
    if (const char* const why = refusal(req, port_, token_)) {
      log_("admin: refused " + req.method + " " + req.path + ": " + why);
      answer(res, 403, Json{{"error", why}});
      return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  s.Get("/faults",
        [this](const httplib::Request&, httplib::Response& res) { answer(res, 200, state()); });
  s.Post("/faults/offline", [this](const httplib::Request& req, httplib::Response& res) {
    const auto seconds = numberParam(req, "seconds");
    if (req.has_param("seconds") && !seconds)
      return answer(res, 400, Json{{"error", "seconds must be a whole number"}});
    faults_.goOffline(seconds ? std::optional(std::chrono::milliseconds(*seconds * 1000))
                              : std::nullopt);
    log_("admin: offline" + (seconds ? " for " + std::to_string(*seconds) + " s" : std::string()));
    answer(res, 200, state());
  });
  s.Post("/faults/online", [this](const httplib::Request&, httplib::Response& res) {
    faults_.goOnline();
    log_("admin: online");
    answer(res, 200, state());
  });
  s.Post("/faults/status", [this](const httplib::Request& req, httplib::Response& res) {
    const auto code = numberParam(req, "code");
    if (!req.has_param("service") || !code || (*code != 0 && (*code < 100 || *code > 599)))
      return answer(res, 400, Json{{"error", "needs service and a code of 0 or 100..599"}});
    const auto retryAfter = numberParam(req, "retry_after");
    faults_.failService(req.get_param_value("service"), static_cast<int>(*code),
                        retryAfter ? std::optional(static_cast<int>(*retryAfter)) : std::nullopt);
    log_("admin: service " + req.get_param_value("service") + " answers " + std::to_string(*code));
    answer(res, 200, state());
  });
  s.Post("/faults/delay", [this](const httplib::Request& req, httplib::Response& res) {
    const auto ms = numberParam(req, "ms");
    if (!req.has_param("service") || !ms)
      return answer(res, 400, Json{{"error", "needs service and ms"}});
    faults_.delayService(req.get_param_value("service"), std::chrono::milliseconds(*ms));
    log_("admin: service " + req.get_param_value("service") + " delayed " + std::to_string(*ms) +
         " ms");
    answer(res, 200, state());
  });
  s.Post("/faults/clear", [this](const httplib::Request&, httplib::Response& res) {
    faults_.clear();
    log_("admin: faults cleared");
    answer(res, 200, state());
  });
  s.Get("/", [this](const httplib::Request&, httplib::Response& res) {
    res.set_content(inspectorPage(token_), "text/html; charset=utf-8");
  });
  s.Get("/requests", [this](const httplib::Request& req, httplib::Response& res) {
    const auto after = numberParam(req, "after");
    Json list = Json::array();
    for (const auto& r : store_.newerThan(after.value_or(0), 200))
      list.push_back(describe(r));
    answer(res, 200, list);
  });
  s.Get("/services", [](const httplib::Request&, httplib::Response& res) {
    answer(res, 200, Json(servicePrefixes()));
  });
  s.Get("/stats", [](const httplib::Request&, httplib::Response& res) {
    answer(res, 200, Json{{"connections", acceptedConnections()}});
  });
  s.Post("/monitor", [this](const httplib::Request& req, httplib::Response& res) {
    const auto value = numberParam(req, "value");
    if (!value)
      return answer(res, 400, Json{{"error", "needs value"}});
    emulator_.setMonitor(static_cast<int>(*value));
    answer(res, 200, state());
  });
  port_ =
      port == 0 ? s.bind_to_any_port("127.0.0.1") : (s.bind_to_port("127.0.0.1", port) ? port : -1);
  if (port_ <= 0)
    throw std::runtime_error("cannot bind the admin port " + std::to_string(port));
  listener_.start(std::move(server));
}

void AdminServer::stop() {
  listener_.stop();
}

}  // namespace quorvel::devserver
