#include "support/TlsTestServer.h"

#include <stdexcept>

namespace quorvel::test {

TlsTestServer::TlsTestServer(std::vector<std::string> hosts) {
  hosts.emplace_back("localhost");
  hosts.emplace_back("127.0.0.1");
  certificates_ = devserver::makeCertificates(dir_.path(), hosts);
  auto server = std::make_unique<httplib::SSLServer>(certificates_.certFile.c_str(),
                                                     certificates_.keyFile.c_str());
  handler_ = [](const httplib::Request&, httplib::Response& res) {
    res.set_content("{}", "application/json");
  };
  auto handle = [this](const httplib::Request& req, httplib::Response& res) {
    std::function<void(const httplib::Request&, httplib::Response&)> handler;
    {
      std::lock_guard lock(mutex_);
      handler = handler_;
    }
    handler(req, res);
    {
      std::lock_guard lock(mutex_);
      received_.push_back({req.get_header_value("Host"), req.target, req.body, req.remote_port});
    }
    arrived_.notify_all();
  };
  // Connections stay open for as many requests as a client sends on them.
  server->set_keep_alive_max_count(100'000);
  server->Get(".*", handle);
  server->Post(".*", handle);
  port_ = server->is_valid() ? server->bind_to_any_port("127.0.0.1") : -1;
  if (port_ <= 0)
    throw std::runtime_error("test server: no TLS or no port");
  listener_.start(std::move(server));
}

void TlsTestServer::onRequest(
    std::function<void(const httplib::Request&, httplib::Response&)> handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

std::vector<ReceivedRequest> TlsTestServer::received() const {
  std::lock_guard lock(mutex_);
  return received_;
}

bool TlsTestServer::waitForRequests(std::size_t count, std::chrono::milliseconds bound) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, bound, [&] { return received_.size() >= count; });
}

}  // namespace quorvel::test
