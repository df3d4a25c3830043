// Deep links, purchases, uninstall registration and short links over real HTTPS on loopback.
#include <future>

#include <gtest/gtest.h>

#include <quorvel/QuorvelLinkGenerator.h>
#include <quorvel/QuorvelTracker.h>

#include "common/QuorvelUtils.h"
#include "log/QuorvelProxyManager.h"
#include "support/Decrypt.h"
#include "support/Eventually.h"
#include "support/TempDir.h"
#include "support/TlsTestServer.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;
constexpr const char* kHostFeaturesKey = "HOST-FEATURES-KEY";

using test::eventually;

class HostFeaturesOverHttps : public ::testing::Test {
 protected:
  void SetUp() override {
    QuorvelProxyManager::sharedManager().stopRemoteDebugging();
    server = std::make_unique<test::TlsTestServer>(
        std::vector<std::string>{"t.localhost", "validate.localhost", "sdk-services.localhost",
                                 "register.localhost", "hopline.localhost"});
    server->onRequest([](const httplib::Request& req, httplib::Response& res) {
      const std::string host = req.get_header_value("Host");
      if (host.rfind("sdk-services.", 0) == 0) {
        const Json body = Json::parse(req.body, nullptr, false);
        const bool wellFormed = body.is_object() && body.contains("receipt-data") &&
                                body["receipt-data"] == "Z29vZC1yZWNlaXB0";  // "good-receipt"
        res.set_content(wellFormed ? R"({"status":0,"transaction_id":")" +
                                         req.get_param_value("tran_id") + "\"}"
                                   : R"({"status":21002})",
                        "application/json");
      } else if (host.rfind("hopline.", 0) == 0) {
        const std::string ts = req.get_header_value("qv-timestamp");
        if (req.get_header_value("authorization") != QuorvelUtils::sha1(kHostFeaturesKey + ts)) {
          res.status = 401;
          return;
        }
        if (req.method == "GET") {
          res.set_content(R"({"pid":"resolved","c":"spring"})", "application/json");
        } else {
          res.set_content("https://go.quorvel.link/tmpl/made1", "text/plain");
        }
      } else {
        res.set_content("{}", "application/json");
      }
    });
  }
  void startTracker(const std::string& receipt) {
    std::ofstream(root / "receipt") << receipt;
    PosixPlatformOptions options;
    options.bundleIdentifier = "com.quorvel.features";
    options.dataDirectory = root / "data";
    options.keychainDirectory = root / "keychain";
    options.extraCAFile = server->caFile();
    options.receiptPath = root / "receipt";
    platform = std::make_shared<const Platform>(makePosixPlatform(options));
    tracker = std::make_unique<QuorvelTracker>(platform);
    tracker->setQuorvelDevKey(std::string(kHostFeaturesKey));
    tracker->setAppleAppID(std::string("42"));
    tracker->setHost("localhost:" + std::to_string(server->port()));
  }
  std::vector<test::ReceivedRequest> from(const std::string& prefix) {
    std::vector<test::ReceivedRequest> out;
    for (const auto& r : server->received()) {
      if (r.host.rfind(prefix, 0) == 0)
        out.push_back(r);
    }
    return out;
  }

  test::TempDir root;
  std::unique_ptr<test::TlsTestServer> server;
  std::shared_ptr<const Platform> platform;
  std::unique_ptr<QuorvelTracker> tracker;
};

TEST_F(HostFeaturesOverHttps, ReceiptValidatedAndRejected) {
  for (const auto& [receipt, valid] :
       {std::pair<std::string, bool>{"good-receipt", true}, {"bad", false}}) {
    startTracker(receipt);
    std::promise<std::pair<bool, Json>> outcome;
    tracker->validateAndTrackInAppPurchase(
        std::string("gems"), std::string("0.99"), std::string("USD"), std::string("tx-" + receipt),
        std::nullopt,
        [&](const Json& r) {
          outcome.set_value({true, r});
        },
        [&](const std::optional<Error>&, const Json& r) {
          outcome.set_value({false, r});
        });
    auto future = outcome.get_future();
    ASSERT_EQ(future.wait_for(20s), std::future_status::ready);
    const auto [ok, response] = future.get();
    EXPECT_EQ(ok, valid) << receipt;
    if (valid)
      EXPECT_EQ(response["transaction_id"], "tx-" + receipt);
    ASSERT_TRUE(eventually([&] { return from("validate.").size() == (valid ? 1U : 2U); }));
    const std::string sealed = from("validate.").back().body;
    const auto event = test::decryptPayload(kHostFeaturesKey, Bytes(sealed.begin(), sealed.end()));
    EXPECT_EQ(event["event"], "qv_purchase");
    EXPECT_EQ(event["product_identifier"], "gems");
  }
}

TEST_F(HostFeaturesOverHttps, UninstallRegistrationKeyByKeyAndOncePerToken) {
  startTracker("r");
  const Bytes token = {0xde, 0xad, 0xbe, 0xef, 0x01};
  tracker->registerUninstall(token);
  tracker->registerUninstall(token);
  ASSERT_TRUE(eventually([&] { return from("register.").size() == 1; }, 30s));
  EXPECT_FALSE(server->waitForRequests(server->received().size() + 1, 4s));
  const auto r = from("register.")[0];
  EXPECT_EQ(r.target, "/api/v4.8/iosevent?buildnumber=4.8.0&app_id=42");
  EXPECT_EQ(r.header("Content-Type"), "application/text");
  const Json body = Json::parse(r.body);
  EXPECT_EQ(body["devkey"], kHostFeaturesKey);
  EXPECT_EQ(body["uid"], tracker->getQuorvelUID());
  EXPECT_EQ(body["devicetoken"], "deadbeef01");
  EXPECT_EQ(body["launch_counter"], "0");
  EXPECT_EQ(body["topic"], "com.quorvel.features");
  EXPECT_EQ(body["sdk_version"], "4.8.0");
  EXPECT_EQ(body["useDevelopment"], false);
  EXPECT_EQ(body["reInstallCounter"], 0);
  EXPECT_EQ(body["bundleversion"], "1");
  EXPECT_EQ(body["shortbundleversion"], "1.0");
  EXPECT_TRUE(body["deviceData"].is_object());
  EXPECT_FALSE(body.contains("appUID"));
}

TEST_F(HostFeaturesOverHttps, ShortLinksResolvedAndMadeByTheService) {
  startTracker("r");
  auto delegate = std::make_shared<QuorvelTrackerDelegate>();
  std::promise<Json> opened;
  delegate->onAppOpenAttribution = [&](const Json& d) { opened.set_value(d); };
  tracker->setDelegate(delegate);
  const std::string link = std::string("https://go.") + kHoplineSchema + "/tmpl/abc";
  tracker->handleOpenURL(link, std::string("com.mail"));
  tracker->trackAppLaunch();
  auto future = opened.get_future();
  ASSERT_EQ(future.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(future.get(), (Json{{"link", link}, {"pid", "resolved"}, {"c", "spring"}}));
  EXPECT_EQ(from("hopline.").at(0).target, "/shortlink-sdk/v1/tmpl?id=abc");

  tracker->setAppInviteHopline(std::string("tmpl"));
  QuorvelLinkGenerator generator(std::string("qv_app_invites"), *tracker);
  std::promise<std::string> made;
  generator.generateHoplineWithCompletionHandler(
      [&](const std::string& url) { made.set_value(url); });
  EXPECT_EQ(made.get_future().get(), "https://go.quorvel.link/tmpl/made1");

  tracker->setQuorvelDevKey(
      std::string("WRONG-KEY-0000"));  // refused by the service: the long link
  std::promise<std::string> fallback;
  generator.generateHoplineWithCompletionHandler(
      [&](const std::string& url) { fallback.set_value(url); });
  EXPECT_EQ(fallback.get_future().get(), generator.generateLink());
}

}  // namespace
}  // namespace quorvel
