#include "AdminServer.h"

#include <stdexcept>

#include <httplib.h>

#include "HttpsFrontend.h"
#include "InspectorPage.h"

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
  res.set_content(body.dump(2, ' ', false, Json::error_handler_t::replace) + "\n",
                  "application/json");
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

}  // namespace

AdminServer::AdminServer(Emulator& emulator, Faults& faults, const RequestStore& store,
                         Emulator::LogSink log)
    : emulator_(emulator), faults_(faults), store_(store), log_(std::move(log)) {}

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
    faults_.failService(req.get_param_value("service"), static_cast<int>(*code));
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
  s.Get("/", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(inspectorPage(), "text/html; charset=utf-8");
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
