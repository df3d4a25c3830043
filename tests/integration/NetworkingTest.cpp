// Tracking requests over real HTTPS on loopback while the host keeps calling the API from
// its own threads: the answers' work and the host's calls share the tracker's state.
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include <quorvel/QuorvelTracker.h>

#include "cache/QuorvelRequestCache.h"
#include "log/QuorvelProxyManager.h"
#include "net/QuorvelHTTPClient.h"
#include "support/TempDir.h"
#include "support/TlsTestServer.h"
#include "tracker/TrackerCore.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

TEST(NetworkingTest, RequestsCompletingWhileTheHostKeepsCallingTheApi) {
  test::TempDir root;
  test::TlsTestServer server({"t.localhost"});
  PosixPlatformOptions options;
  options.bundleIdentifier = "com.quorvel.nettest";
  options.dataDirectory = root / "data";
  options.keychainDirectory = root / "keychain";
  options.extraCAFile = server.caFile();
  TrackerCore tracker(std::make_shared<const Platform>(makePosixPlatform(options)),
                      QuorvelProxyManager::sharedManager());
  std::atomic<bool> stop{false};
  std::vector<std::thread> host;
  for (int t = 0; t < 2; ++t) {
    host.emplace_back([&, t] {
      for (int i = 0; i < 2000 && !stop; ++i) {
        tracker.setCustomerUserID("user-" + std::to_string(i));
        tracker.setAdditionalData(Json{{"i", i}, {"t", t}});
        tracker.setHost(i % 2 == 0 ? std::optional<std::string>("localhost") : std::nullopt);
        (void)tracker.customData();
        (void)tracker.getQuorvelUID();
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    auto answered = std::make_shared<std::promise<void>>();
    tracker.httpClient()->sendRequestEventToServer(
        QuorvelRequestCacheData("https://t." + server.domain() + "/api?i=" + std::to_string(i),
                                Bytes{'e'}, "4.8.0"),
        false, std::nullopt, false, [answered] { answered->set_value(); });
    const bool delivered = answered->get_future().wait_for(15s) == std::future_status::ready;
    EXPECT_TRUE(delivered) << i;
    if (!delivered)
      break;  // the host's threads still have to be joined
  }
  stop = true;
  for (auto& th : host)
    th.join();
  EXPECT_TRUE(server.waitForRequests(20));
}

}  // namespace
}  // namespace quorvel
