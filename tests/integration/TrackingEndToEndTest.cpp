// A session of the library end to end on the real POSIX platform: real queues, libcurl,
// files; a loopback HTTPS service that decrypts each body with the developer key.
#include <future>

#include <gtest/gtest.h>

#include <quorvel/QuorvelTracker.h>

#include "log/QuorvelProxyManager.h"
#include "support/Decrypt.h"
#include "support/Eventually.h"
#include "support/TempDir.h"
#include "support/TlsTestServer.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

constexpr const char* kE2eKey = "E2E-DEVKEY-0001";

using test::eventually;

class TrackingEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    certificates = test::makeTestCertificates(
        certDir.path(), {"t.localhost", "events.localhost", "sdk.localhost", "stats.localhost",
                         "localhost", "127.0.0.1"});
    server = std::make_unique<test::TlsTestServer>(std::vector<std::string>{}, 0, certificates);
    server->onRequest(
        [this](const httplib::Request& req, httplib::Response& res) { answer(req, res); });
    std::ofstream(root / "receipt") << "store-receipt-bytes";
  }
  void answer(const httplib::Request& req, httplib::Response& res) {
    const std::string host = req.get_header_value("Host");
    if (host.rfind("sdk.", 0) == 0) {
      res.set_content(R"({"af_status":"Non-organic","campaign":"spring","iscache":false})",
                      "application/json");
      return;
    }
    res.set_content(R"({"monitor":0})", "application/json");
  }
  void startTracker(std::shared_ptr<QuorvelTrackerDelegate> delegate = nullptr) {
    PosixPlatformOptions options;
    options.bundleIdentifier = "com.quorvel.e2e";
    options.bundleVersion = "3";
    options.dataDirectory = root / "data";
    options.keychainDirectory = root / "keychain";
    options.extraCAFile = certificates.caFile;
    options.receiptPath = root / "receipt";
    platform = std::make_shared<const Platform>(makePosixPlatform(options));
    tracker = std::make_unique<TrackerCore>(platform, QuorvelProxyManager::sharedManager());
    tracker->setQuorvelDevKey(std::string(kE2eKey));
    tracker->setAppleAppID(std::string("1234567"));
    tracker->setHost("localhost:" + std::to_string(server->port()));
    // No Search Ads client here: its "not loaded" answer after 2 s would add a follow-up
    // launch whenever the machine is slow enough for the test to still run then.
    tracker->setDisableIAdTracking(true);
    if (delegate)
      tracker->setDelegate(delegate);
  }
  // The decrypted payloads of the tracking requests received so far, with their hosts.
  std::vector<std::pair<std::string, Json>> tracking() {
    std::vector<std::pair<std::string, Json>> out;
    for (const auto& r : server->received()) {
      if (r.path == "/api/v4.8/iosevent") {
        out.emplace_back(r.host.substr(0, r.host.find('.')),
                         test::decryptPayload(kE2eKey, Bytes(r.body.begin(), r.body.end())));
      }
    }
    return out;
  }
  std::size_t count(const std::string& prefix) {
    std::size_t n = 0;
    for (const auto& r : server->received())
      n += r.host.rfind(prefix, 0) == 0 ? 1 : 0;
    return n;
  }

  test::TempDir root;
  test::TempDir certDir;
  test::TestCertificates certificates;
  std::unique_ptr<test::TlsTestServer> server;
  std::shared_ptr<const Platform> platform;
  std::unique_ptr<TrackerCore> tracker;
};

TEST_F(TrackingEndToEnd, ASessionFromFirstLaunchToTheNextProcess) {
  QuorvelProxyManager::sharedManager().stopRemoteDebugging();
  auto delegate = std::make_shared<QuorvelTrackerDelegate>();
  std::promise<Json> conversion;
  std::atomic<int> conversions{0};
  delegate->onConversionDataReceived = [&](const Json& d) {
    if (conversions++ == 0)
      conversion.set_value(d);
  };
  startTracker(delegate);

  // The first launch of a fresh install carries the store receipt.
  tracker->trackAppLaunch();
  ASSERT_EQ(conversion.get_future().wait_for(20s), std::future_status::ready);
  auto t = tracking();
  ASSERT_EQ(t.size(), 1U);
  EXPECT_EQ(t[0].first, "t");
  EXPECT_EQ(t[0].second["event"], "Launched");
  EXPECT_EQ(t[0].second["counter"], "1");
  EXPECT_EQ(t[0].second["timepassedsincelastlaunch"], "-1.000000");
  EXPECT_FALSE(t[0].second["firstLaunchDate"].get<std::string>().empty());
  EXPECT_EQ(t[0].second["installReceiptData"],
            R"({"data":{"receipt-data":"c3RvcmUtcmVjZWlwdC1ieXRlcw=="}})");
  EXPECT_EQ(platform->preferences->objectForKey(keys::kConversionData),
            (Json{{"af_status", "Non-organic"}, {"campaign", "spring"}}));

  // Inside the session interval: skipped.
  tracker->trackAppLaunch();
  tracker->trackEvent("af_purchase", std::string("9.99"));
  tracker->trackEventWithValues("af_level", Json{{"level", 3}});
  ASSERT_TRUE(eventually([&] { return tracking().size() == 3; }));
  EXPECT_FALSE(server->waitForRequests(server->received().size() + 1, 600ms));
  t = tracking();
  EXPECT_EQ(t[1].first, "events");
  EXPECT_EQ(t[2].first, "events");
  std::map<std::string, Json> events;
  for (std::size_t i = 1; i < 3; ++i)
    events[t[i].second["event"].get<std::string>()] = t[i].second;
  EXPECT_EQ(events["af_purchase"]["eventvalue"], "9.99");
  EXPECT_EQ(events["af_level"]["eventvalue"], "%7B%22level%22:3%7D");

  // Background: the session is counted and the statistics leave unencrypted.
  platform->notificationCenter->post(
      {platform::kApplicationDidEnterBackgroundNotification, Json()});
  ASSERT_TRUE(eventually([&] { return count("stats.") == 1; }));
  for (const auto& r : server->received()) {
    if (r.host.rfind("stats.", 0) == 0) {
      const Json stats = Json::parse(r.body);
      EXPECT_EQ(stats["statType"], "user_closed_app");
      EXPECT_EQ(stats["launch_counter"], 1);
      EXPECT_EQ(r.header("Content-Type"), "application/text");
    }
  }

  // The next process: a second launch, conversion data from the stored copy.
  platform->preferences->synchronize();
  tracker.reset();
  std::promise<Json> stored;
  delegate->onConversionDataReceived = [&](const Json& d) { stored.set_value(d); };
  startTracker(delegate);
  tracker->trackAppLaunch();
  ASSERT_EQ(stored.get_future().wait_for(20s), std::future_status::ready);
  ASSERT_TRUE(eventually([&] { return tracking().size() == 4; }));
  t = tracking();
  EXPECT_EQ(t[3].second["counter"], "2");
  EXPECT_EQ(t[3].second["sessioncounter"], "2");
  EXPECT_FALSE(t[3].second.contains("installReceiptData"));
  EXPECT_NE(t[3].second["timepassedsincelastlaunch"], "-1.000000");
  EXPECT_EQ(t[3].second["installAttribution"],
            (Json{{"af_status", "Non-organic"}, {"campaign", "spring"}}));
  EXPECT_EQ(count("sdk."), 1U);  // fetched once, then served from the stored copy
}

}  // namespace
}  // namespace quorvel
