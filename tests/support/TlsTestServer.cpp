#include "support/TlsTestServer.h"

#include <stdexcept>

namespace quorvel::test {

std::string ReceivedRequest::header(const std::string& name) const {
  const auto it = headers.find(name);
  return it == headers.end() ? std::string() : it->second;
}

TlsTestServer::TlsTestServer(std::vector<std::string> hosts, int port,
                             std::optional<TestCertificates> certificates) {
  hosts.emplace_back("localhost");
  hosts.emplace_back("127.0.0.1");
  certificates_ = certificates ? *certificates : makeTestCertificates(dir_.path(), hosts);
  server_ = std::make_unique<httplib::SSLServer>(certificates_.certFile.c_str(),
                                                 certificates_.keyFile.c_str());
  if (!server_->is_valid())
    throw std::runtime_error("test server: invalid TLS setup");
  handler_ = [](const httplib::Request&, httplib::Response& res) {
    res.set_content("{}", "application/json");
  };
  auto handle = [this](const httplib::Request& req, httplib::Response& res) {
    ReceivedRequest r{
        req.method,     req.get_header_value("Host"), req.path, req.target, {}, req.body,
        req.remote_port};
    for (const auto& [k, v] : req.headers)
      r.headers.emplace(k, v);
    std::function<void(const httplib::Request&, httplib::Response&)> handler;
    {
      std::lock_guard lock(mutex_);
      handler = handler_;
    }
    handler(req, res);
    {
      std::lock_guard lock(mutex_);
      received_.push_back(std::move(r));
    }
    arrived_.notify_all();
  };
  // Connections stay open for as many requests as a client sends on them.
  server_->set_keep_alive_max_count(100'000);
  server_->Get(".*", handle);
  server_->Post(".*", handle);
  if (port > 0) {
    if (!server_->bind_to_port("127.0.0.1", port))
      throw std::runtime_error("test server: cannot bind");
    port_ = port;
  } else {
    port_ = server_->bind_to_any_port("127.0.0.1");
  }
  if (port_ <= 0)
    throw std::runtime_error("test server: cannot bind");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // stop() only takes effect once the accept loop runs: wait for it, within a bound.
  for (int i = 0; i < 100000 && !server_->is_running(); ++i)
    std::this_thread::yield();
}

TlsTestServer::~TlsTestServer() {
  server_->stop();
  if (thread_.joinable())
    thread_.join();
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
