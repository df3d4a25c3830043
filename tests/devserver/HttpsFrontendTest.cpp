// The emulator on a real socket: malformed traffic gets an error answer or a closed
// connection and the server keeps serving. (Going offline and back, and status faults, are
// driven through the running emulator by the demo's end-to-end tests.)
#include <gtest/gtest.h>
#include <httplib.h>

#include "Certificates.h"
#include "HttpsFrontend.h"
#include "support/LoopbackListener.h"
#include "support/TempDir.h"

namespace quorvel::devserver {
namespace {

using namespace std::chrono_literals;

class HttpsFrontendTest : public ::testing::Test {
 protected:
  void SetUp() override {
    config.apps = {{"1", "KEY"}};
    emulator = std::make_unique<Emulator>(config, store, faults, [this](const std::string& line) {
      const std::lock_guard lock(mutex);
      log.push_back(line);
    });
    frontend = std::make_unique<HttpsFrontend>(
        *emulator, faults, makeCertificates(dir.path(), certificateHosts("localhost")), "127.0.0.1",
        [this](const std::string& line) {
          const std::lock_guard lock(mutex);
          log.push_back(line);
        });
    frontend->start(0);
    emulator->setPort(frontend->port());
  }

  httplib::Result get(const std::string& host, const std::string& path,
                      httplib::Headers headers = {}) {
    httplib::SSLClient client("127.0.0.1", frontend->port());
    client.set_ca_cert_path((dir / "ca.pem").c_str());
    client.enable_server_certificate_verification(false);
    client.set_connection_timeout(5, 0);
    client.set_read_timeout(10, 0);
    headers.emplace("Host", host + ":" + std::to_string(frontend->port()));
    return client.Get(path.c_str(), headers);
  }

  bool logged(const std::string& text) {
    const std::lock_guard lock(mutex);
    for (const auto& line : log) {
      if (line.find(text) != std::string::npos)
        return true;
    }
    return false;
  }

  test::TempDir dir;
  EmulatorConfig config;
  RequestStore store{":memory:"};
  Faults faults;
  std::mutex mutex;
  std::vector<std::string> log;
  std::unique_ptr<Emulator> emulator;
  std::unique_ptr<HttpsFrontend> frontend;
};

TEST_F(HttpsFrontendTest, MalformedTrafficIsAnsweredOrDroppedAndServingGoesOn) {
  // Not TLS at all.
  EXPECT_TRUE(
      test::connectToLoopback(frontend->port(), "GET / HTTP/1.1\r\nHost: t.localhost\r\n\r\n"));
  EXPECT_TRUE(test::connectToLoopback(frontend->port(), std::string(4096, '\x16')));
  // A TLS record holding a client hello too short to be one.
  EXPECT_TRUE(test::connectToLoopback(frontend->port(),
                                      std::string("\x16\x03\x01\x00\x05\x01\x00\x00\x01\x00", 10)));
  // TLS, then headers far beyond any limit.
  const auto huge = get("t.localhost", "/", {{"X-Big", std::string(64 * 1024, 'a')}});
  EXPECT_TRUE(!huge || huge->status >= 400);
  // TLS, a method the tracking hosts do not take.
  const auto wrongMethod = get("t.localhost", "/api/v4.8/iosevent?app_id=1");
  ASSERT_TRUE(wrongMethod);
  EXPECT_EQ(wrongMethod->status, 405);

  const auto fine = get("localhost", "/");
  ASSERT_TRUE(fine);
  EXPECT_EQ(fine->status, 200);
  EXPECT_TRUE(logged("TLS handshake refused"));
}

}  // namespace
}  // namespace quorvel::devserver
