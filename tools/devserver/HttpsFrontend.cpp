#include "HttpsFrontend.h"

#include <openssl/ssl.h>

#include <chrono>
#include <map>
#include <mutex>
#include <stdexcept>

#include <httplib.h>

namespace quorvel::devserver {

namespace {

using namespace std::chrono_literals;

// Marks answers the emulator gave; the others come from the HTTP layer refusing a request
// it could not parse.
constexpr const char* kAnsweredHeader = "X-Quorvel-Devserver";

// TLS failures never reach a request handler; OpenSSL's info callback is where they show.
// There is one sink per process, set by the first frontend.
std::atomic<Emulator::LogSink*> gTlsLog{nullptr};

// Marks connections whose handshake completed: alerts sent on them afterwards are the
// ordinary ends of finished connections, not worth a line.
int handshakeDoneIndex() {
  static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

struct ConnectionCounts {
  std::mutex mutex;
  std::map<std::string, std::int64_t> byServerName;
};

ConnectionCounts& connectionCounts() {
  static auto* counts = new ConnectionCounts();  // used by TLS callbacks until the very end
  return *counts;
}

void countConnection(const SSL* ssl) {
  const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
  auto& counts = connectionCounts();
  const std::lock_guard lock(counts.mutex);
  ++counts.byServerName[name != nullptr ? name : ""];
}

void logTlsEvents(const SSL* ssl, int where, int ret) {
  // TLS 1.3 reports a handshake done again for each session ticket: count the first only.
  if ((where & SSL_CB_HANDSHAKE_DONE) != 0) {
    if (SSL_get_ex_data(ssl, handshakeDoneIndex()) == nullptr) {
      SSL_set_ex_data(const_cast<SSL*>(ssl), handshakeDoneIndex(), const_cast<char*>("done"));
      countConnection(ssl);
    }
    return;
  }
  Emulator::LogSink* log = gTlsLog.load();
  if (log == nullptr)
    return;
  if ((where & SSL_CB_ALERT) != 0 && (where & SSL_CB_WRITE) != 0 &&
      SSL_get_ex_data(ssl, handshakeDoneIndex()) == nullptr) {
    (*log)(std::string("TLS handshake refused: sent alert ") + SSL_alert_desc_string_long(ret));
  }
}

ServiceRequest toServiceRequest(const httplib::Request& req) {
  ServiceRequest r;
  r.method = req.method;
  r.host = req.get_header_value("Host");
  r.path = req.path;
  const auto question = req.target.find('?');
  if (question != std::string::npos)
    r.query = req.target.substr(question + 1);
  for (const auto& [name, value] : req.headers)
    r.headers.emplace(name, value);
  r.body = req.body;
  return r;
}

}  // namespace

Json acceptedConnections() {
  auto& counts = connectionCounts();
  const std::lock_guard lock(counts.mutex);
  Json out = Json::object();
  for (const auto& [name, count] : counts.byServerName)
    out[name] = count;
  return out;
}

HttpsFrontend::HttpsFrontend(Emulator& emulator, const Faults& faults,
                             CertificateFiles certificates, std::string address,
                             Emulator::LogSink log)
    : emulator_(emulator),
      faults_(faults),
      certificates_(std::move(certificates)),
      address_(std::move(address)),
      log_(std::move(log)) {
  Emulator::LogSink* expected = nullptr;
  gTlsLog.compare_exchange_strong(expected, &log_);
}

HttpsFrontend::~HttpsFrontend() {
  stop();
  Emulator::LogSink* mine = &log_;
  gTlsLog.compare_exchange_strong(mine, nullptr);
}

std::unique_ptr<httplib::SSLServer> HttpsFrontend::makeServer() {
  auto server = std::make_unique<httplib::SSLServer>(certificates_.certFile.c_str(),
                                                     certificates_.keyFile.c_str());
  if (!server->is_valid())
    throw std::runtime_error("cannot load the server certificate " + certificates_.certFile);
  SSL_CTX_set_info_callback(server->ssl_context(), logTlsEvents);
  server->set_payload_max_length(std::size_t{8} * 1024 * 1024);
  // The library keeps a connection per service host open; each open connection holds a
  // worker, so there are enough workers for every host and idle ones are let go soon.
  // httplib takes the queue as a raw pointer and deletes it itself.
  server->new_task_queue = [] {
    return new httplib::ThreadPool(32);
  };  // NOLINT(cppcoreguidelines-owning-memory)
  server->set_keep_alive_timeout(2);
  // A kept-alive connection serves as many requests as the client sends on it: closing it
  // every few requests would cost the client a TLS handshake each time.
  server->set_keep_alive_max_count(1'000'000);
  // The answer goes out in more than one write; without this, Nagle's algorithm holds the
  // last one back until the client's delayed acknowledgement (40 ms a request).
  server->set_tcp_nodelay(true);
  server->set_read_timeout(10, 0);
  server->set_write_timeout(10, 0);
  // Every method and path reaches the emulator, which answers wrong ones itself. (A
  // pre-routing handler would run before the body is read.)
  const auto handler = [this](const httplib::Request& req, httplib::Response& res) {
    const ServiceRequest request = toServiceRequest(req);
    if (const auto delay = faults_.delayFor(emulator_.serviceOf(request.host)); delay > 0ms)
      std::this_thread::sleep_for(delay);
    const ServiceResponse answer = emulator_.handle(request);
    res.status = answer.status;
    res.set_header(kAnsweredHeader, "1");
    if (answer.retryAfterSeconds)
      res.set_header("Retry-After", std::to_string(*answer.retryAfterSeconds));
    // Answers are a few hundred bytes: compressing them (httplib does so for the bare JSON
    // type when the client accepts it) cost the emulator more CPU than anything else. The
    // charset parameter, right for these answers anyway, keeps them as they are.
    res.set_content(answer.body, answer.contentType == "application/json"
                                     ? std::string("application/json; charset=utf-8")
                                     : answer.contentType);
  };
  const std::string everything = ".*";
  server->Get(everything, handler);
  server->Post(everything, handler);
  server->Put(everything, handler);
  server->Patch(everything, handler);
  server->Delete(everything, handler);
  server->Options(everything, handler);
  server->set_logger([this](const httplib::Request& req, const httplib::Response& res) {
    if (!res.has_header(kAnsweredHeader)) {
      log_("malformed request (" + (req.method.empty() ? std::string("no method") : req.method) +
           ") answered " + std::to_string(res.status));
    }
  });
  return server;
}

void HttpsFrontend::start(int port) {
  auto server = makeServer();
  if (port == 0) {
    port_ = server->bind_to_any_port(address_);
    if (port_ <= 0)
      throw std::runtime_error("cannot bind any port on " + address_);
  } else if (!server->bind_to_port(address_, port)) {
    throw std::runtime_error("cannot bind " + address_ + ":" + std::to_string(port));
  } else {
    port_ = port;
  }
  {
    const std::lock_guard lock(mutex_);
    listener_.start(std::move(server));
  }
  supervisor_ = std::thread([this] { supervise(); });
}

bool HttpsFrontend::goOnline() {
  auto server = makeServer();
  if (!server->bind_to_port(address_, port_))
    return false;
  const std::lock_guard lock(mutex_);
  listener_.start(std::move(server));
  return true;
}

void HttpsFrontend::goOffline() {
  const std::lock_guard lock(mutex_);
  listener_.stop();
}

void HttpsFrontend::supervise() {
  bool online = true;
  while (!stopping_) {
    const bool wanted = faults_.online(Faults::Clock::now());
    if (wanted && !online) {
      // The port may still be held for a moment by the last connections; try again soon.
      if (goOnline()) {
        online = true;
        log_("online: accepting connections on port " + std::to_string(port_));
      }
    } else if (!wanted && online) {
      goOffline();
      online = false;
      log_("offline: refusing connections on port " + std::to_string(port_));
    }
    faults_.waitForChange(Faults::Clock::now() + 200ms);
  }
}

void HttpsFrontend::stop() {
  if (stopping_.exchange(true))
    return;
  if (supervisor_.joinable())
    supervisor_.join();
  goOffline();
}

}  // namespace quorvel::devserver
