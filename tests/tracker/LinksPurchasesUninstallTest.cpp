#include <quorvel/QuorvelTracker.h>

#include <gtest/gtest.h>

#include "log/QuorvelProxyManager.h"
#include "support/Decrypt.h"
#include "support/TestPlatform.h"
#include "support/TrackerFixture.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

class HostEventsTest : public test::TrackerFixture {
 protected:
  void SetUp() override {
    TrackerFixture::SetUp();
    fakes.bundle->receiptPath = "/app/receipt";
    fakes.fileSystem->writeFileAtomically("/app/receipt", Bytes{'r', 'c', 'p'});
  }
};

TEST_F(HostEventsTest, OpenURLAndPushEntryPoints) {
  tracker->handleOpenURL("myapp://first", std::string("com.a"));
  tracker->handleOpenURL("myapp://second", std::string("com.b"), Json{{"x", 1}});
  EXPECT_EQ(tracker->deeplink(), "myapp://first");
  EXPECT_EQ(tracker->sourceApplication(), "com.a");

  tracker->handleOpenUrl("myapp://third", std::nullopt);  // no options: the source stays
  EXPECT_EQ(tracker->deeplink(), "myapp://third");
  EXPECT_EQ(tracker->sourceApplication(), "com.a");
  tracker->handleOpenUrl("myapp://fourth",
                         QuorvelOpenURLOptions{});  // options without a source clear it
  EXPECT_EQ(tracker->deeplink(), "myapp://fourth");
  EXPECT_FALSE(tracker->sourceApplication());

  EXPECT_TRUE(
      tracker->continueUserActivity({"com.example.custom", "https://x.example/a"}, nullptr));
  EXPECT_EQ(tracker->deeplink(), "myapp://fourth");
  EXPECT_TRUE(tracker->continueUserActivity(
      {kQuorvelUserActivityTypeBrowsingWeb, "https://x.example/a"}, nullptr));
  EXPECT_EQ(tracker->deeplink(), "https://x.example/a");
  tracker->didUpdateUserActivity({kQuorvelUserActivityTypeBrowsingWeb, std::nullopt});  // no URL
  // Push payloads keep their own entry; one without ours, or not an object, clears it.
  tracker->handlePushNotification(Json{{"aps", Json::object()}, {"qv", Json{{"pid", "push"}}}});
  EXPECT_EQ(tracker->pushPayload(), (Json{{"pid", "push"}}));
  EXPECT_EQ(tracker->deeplink(), "https://x.example/a");
  tracker->handlePushNotification(Json{{"aps", Json::object()}});
  EXPECT_FALSE(tracker->pushPayload());
  tracker->handlePushNotification(Json::array({1}));
  EXPECT_FALSE(tracker->pushPayload());
}

TEST_F(HostEventsTest, PurchaseEventThenValidation) {
  tracker->setCurrencyCode(std::string("USD"));
  std::vector<Json> successes;
  tracker->validateAndTrackInAppPurchase(
      std::string("com.game.gems"), std::nullopt, std::string("EUR"), std::string("tx-1"),
      Json{{"ignored", true}}, [&](const Json& r) { successes.push_back(r); }, nullptr);
  // The validation leaves at once; the report once the outbox has written it.
  ASSERT_EQ(sent().size(), 2U);
  EXPECT_EQ(request(1).url,
            "https://validate.svc.example/api/v4.8/iosevent?app_id=123&buildnumber=4.8.0");
  const Json event = test::decryptPayload(kDevKey, request(1).body);
  EXPECT_EQ(event["event"], "qv_purchase");
  EXPECT_EQ(event["currency"], "EUR");
  EXPECT_EQ(event["price"], "");
  EXPECT_EQ(event["apple_tran_id"], "tx-1");
  EXPECT_EQ(event["product_identifier"], "com.game.gems");
  EXPECT_EQ(event["is_sandbox"], "false");
  EXPECT_EQ(event["receipt_data"], (Json{{"data", Json{{"receipt-data", "cmNw"}}}}));

  const auto& v = request(0);
  EXPECT_EQ(v.url,
            "https://sdk-services.svc.example/validate-ios-receipt-server?app_id=123&quorvel_id=" +
                tracker->getQuorvelUID() + "&dev_key=" + kDevKey +
                "&sandbox=false&tran_id=tx-1&advertisingId=&JBDevice=false");
  EXPECT_EQ(v.headers, (platform::HeaderList{{"Accept", "application/json"},
                                             {"Content-Type", "application/json"}}));
  EXPECT_EQ(std::string(v.body.begin(), v.body.end()), R"({"receipt-data":"cmNw"})");
  EXPECT_TRUE(tracker->validateRequest());
  fakes.respond(0, 200, R"({"status":0,"transaction_id":"tx-1"})");
  fakes.dispatcher->runUntilIdle();
  ASSERT_EQ(successes.size(), 1U);
  EXPECT_EQ(successes[0]["transaction_id"], "tx-1");
  EXPECT_FALSE(tracker->validateRequest());
}

TEST_F(HostEventsTest, PurchaseFailures) {
  struct Outcome {
    int calls = 0;
    std::optional<Error> error;
    Json response;
  };
  auto attempt = [&](std::optional<std::string> product, std::optional<std::string> tx) {
    auto out = std::make_shared<Outcome>();
    tracker->validateAndTrackInAppPurchase(
        product, std::string("1.99"), std::string("USD"), tx, std::nullopt,
        [out](const Json&) { ++out->calls; },
        [out](const std::optional<Error>& e, const Json& r) {
          ++out->calls;
          out->error = e;
          out->response = r;
        });
    return out;
  };
  auto missing = attempt(std::nullopt, std::string("tx"));
  EXPECT_EQ(missing->response, "Quorvel Error: validateInAppPurchase Parameters cannot be nil");
  EXPECT_TRUE(sent().empty());

  auto rejected = attempt(std::string("p"), std::string("tx"));
  // Each purchase sends its validation at once and its report after the outbox's write.
  fakes.respond(0, 200, R"({"status":21002})");
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(rejected->calls, 1);
  EXPECT_FALSE(rejected->error);
  EXPECT_EQ(rejected->response, (Json{{"status", 21002}}));

  auto broken = attempt(std::string("p"), std::string("tx"));
  fakes.respond(2, 200, "<html>");
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(broken->error->code, 3840);

  auto offline = attempt(std::string("p"), std::string("tx"));
  fakes.fail(4, Error{platform::kURLErrorDomain, -1009, "offline"});
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(offline->error->code, -1009);
  EXPECT_EQ(fakes.systemLog->count(
                "Failed validating receipt = Error Domain=NSURLErrorDomain Code=-1009"),
            1U);

  fakes.fileSystem->removeFile("/app/receipt");
  auto noReceipt = attempt(std::string("p"), std::string("tx"));
  EXPECT_EQ(noReceipt->response,
            "Quorvel Error: Could not get application receipt data, please check the paramters.");

  fakes.fileSystem->writeFileAtomically("/app/receipt", Bytes{'r'});
  tracker->setAppleAppID(std::nullopt);
  const auto before = sent().size();
  auto unconfigured = attempt(std::string("p"), std::string("tx"));
  EXPECT_EQ(unconfigured->error->domain, "com.quorvel.ErrorDomain");
  EXPECT_EQ(sent().size(), before + 1);  // the purchase event only

  fakes.device->systemVersionValue = "6.1";
  auto old = attempt(std::nullopt, std::nullopt);
  EXPECT_EQ(old->calls, 0);
}

TEST_F(HostEventsTest, UninstallRegistrationOncePerTokenAndOnlyWithAVendorIdentifier) {
  const Bytes token = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f, 0x60, 0x71};
  EXPECT_EQ(TrackerCore::deviceTokenText(token), "<0a1b2c3d 4e5f6071>");
  EXPECT_EQ(TrackerCore::deviceTokenText({1, 2, 3}), "<010203>");
  EXPECT_EQ(TrackerCore::deviceTokenText({}), "<>");
  tracker->setCustomerUserID(std::string("cust"));
  tracker->registerUninstall(token);
  EXPECT_EQ(fakes.preferences->stringForKey(keys::kDeviceToken), "<0a1b2c3d 4e5f6071>");
  fakes.dispatcher->advance(3499ms);
  const auto background = [&] { return fakes.requests(test::kBackgroundSession); };
  EXPECT_TRUE(background().empty());
  fakes.dispatcher->advance(1ms);
  ASSERT_EQ(background().size(), 1U);
  const auto r = background()[0];
  EXPECT_EQ(r.url, "https://register.svc.example/api/v4.8/iosevent?buildnumber=4.8.0&app_id=123");
  const Json body = Json::parse(r.body.begin(), r.body.end());
  EXPECT_EQ(
      test::keyList(body),
      "devkey uid devicetoken launch_counter topic install_date advertiserId "
      "OriginalQuorvelId reInstallCounter sdk_version useDevelopment bundleversion bundlename "
      "shortbundleversion vendorId wifi deviceData appUID");
  EXPECT_EQ(body["devicetoken"], "0a1b2c3d4e5f6071");
  EXPECT_EQ(body["launch_counter"], "0");
  EXPECT_EQ(body["reInstallCounter"], 0);
  EXPECT_EQ(body["useDevelopment"], false);
  EXPECT_EQ(body["wifi"], "false");
  EXPECT_EQ(body["OriginalQuorvelId"], "");
  EXPECT_EQ(body["appUID"], "cust");

  tracker->registerUninstall(token);  // the same token: nothing
  fakes.dispatcher->advance(5s);
  EXPECT_EQ(background().size(), 1U);
  tracker->registerUninstall(Bytes{1, 2, 3, 4, 5});  // a new token: again
  fakes.dispatcher->advance(5s);
  EXPECT_EQ(background().size(), 2U);
  // Without a vendor identifier the registration is dropped, but its token remembered.
  fakes.device->vendorId.reset();
  tracker->registerUninstall(Bytes{9, 9});
  fakes.dispatcher->advance(4s);
  EXPECT_EQ(background().size(), 2U);
  EXPECT_EQ(fakes.systemLog->count("Register uninstall exception: "), 1U);
  EXPECT_EQ(fakes.preferences->stringForKey(keys::kDeviceToken), "<0909>");
}

}  // namespace
}  // namespace quorvel
