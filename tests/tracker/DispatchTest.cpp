#include <quorvel/QuorvelTracker.h>

#include <gtest/gtest.h>

#include "log/QuorvelProxyManager.h"
#include "support/Decrypt.h"
#include "support/TestPlatform.h"
#include "support/TrackerFixture.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"
#include "util/QuorvelDictionary.h"

namespace quorvel {
namespace {

class DispatchTest : public test::TrackerFixture {};

TEST_F(DispatchTest, FirstLaunchCarriesTheReceiptAndLaterOnesDoNot) {
  fakes.bundle->receiptPath = "/app/receipt";
  fakes.fileSystem->writeFileAtomically("/app/receipt", Bytes{'r', 'c', 'p', 't'});
  tracker->callServerWithEventName("Launched");
  tracker->callServerWithEventName("Launched");
  const Json first = payload(0);
  ASSERT_FALSE(first.is_discarded());
  EXPECT_EQ(first["eventvalue"], "");
  EXPECT_EQ(first["installReceiptData"], R"({"data":{"receipt-data":"cmNwdA=="}})");
  EXPECT_FALSE(payload(1).contains("installReceiptData"));
  EXPECT_EQ(tracker->lastLaunchTime(), fakes.clock->now());
}

TEST_F(DispatchTest, AnUnreadableReceiptAddsNothingAndAnEarlyEventTakesTheFirstTime) {
  tracker->callServerWithEventName("Launched");  // no receipt file: "-1" under "data"
  EXPECT_FALSE(payload(0).contains("installReceiptData"));

  test::TestPlatform other;
  other.bundle->receiptPath = "/app/receipt";
  other.fileSystem->writeFileAtomically("/app/receipt", Bytes{'r'});
  TrackerCore t(other.shared(), QuorvelProxyManager::sharedManager());
  t.setQuorvelDevKey(std::string(kDevKey));
  t.callServerWithEventName("purchase_made", std::nullopt, true, false);
  EXPECT_TRUE(other.preferences->objectForKey(keys::kInstallTimestamp));
  t.callServerWithEventName("Launched");
  const auto body = other.requests().at(1).body;
  EXPECT_FALSE(test::decryptPayload(kDevKey, body).contains("installReceiptData"));
}

TEST_F(DispatchTest, ConfigurationChecks) {
  tracker->setQuorvelDevKey(std::nullopt);
  tracker->callServerWithEventName("Launched");
  EXPECT_TRUE(sent().empty());
  EXPECT_EQ(fakes.systemLog->count("Quorvel dev key is missing"), 1U);

  tracker->setQuorvelDevKey(std::string(""));  // empty passes
  tracker->setAppleAppID(std::string("12a"));
  tracker->callServerWithEventName("Launched");
  EXPECT_EQ(sent().size(), 1U);
  EXPECT_EQ(fakes.systemLog->count("Quorvel Error: appleAppID should be a number!"), 1U);
  tracker->setAppleAppID(std::nullopt);
  tracker->validateAppID();
  EXPECT_EQ(fakes.systemLog->count("Quorvel Error: appleAppID is missing!"), 1U);
  tracker->setAppleAppID(std::string(""));
  tracker->validateAppID();
  EXPECT_EQ(fakes.systemLog->count("Quorvel Error: appleAppID should be a number!"), 2U);
}

TEST_F(DispatchTest, UnserialisablePayloadSendsOneByte) {
  QuorvelDictionary d;
  d.setParameter(Json(std::numeric_limits<double>::infinity()), "x");
  EXPECT_EQ(tracker->encryptData(d), Bytes{0xFF});
  EXPECT_EQ(fakes.systemLog->count("Cannot encrypt `nil`"), 1U);
}

TEST_F(DispatchTest, ADeliveredLaunchFetchesConversionDataForAnInterestedDelegate) {
  tracker->callServerWithEventName("Launched");  // no delegate yet: nothing to fetch for
  fakes.respond(0, 200, "{}");
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(sent().size(), 1U);
  auto delegate = std::make_shared<QuorvelTrackerDelegate>();
  std::vector<Json> received;
  delegate->onConversionDataReceived = [&](const Json& d) { received.push_back(d); };
  tracker->setDelegate(delegate);
  tracker->callServerWithEventName("some_event", std::string("v"), true, false);
  fakes.respond(1, 200, "{}");
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(sent().size(), 2U);  // events never fetch
  tracker->callServerWithEventName("Launched");
  fakes.fail(2, Error{platform::kURLErrorDomain, -1004, "refused"});
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(sent().size(), 3U);  // undelivered: no fetch
  tracker->callServerWithEventName("Launched");
  fakes.respond(3, 500, "{}");
  fakes.dispatcher->runUntilIdle();
  ASSERT_EQ(sent().size(), 5U);
  EXPECT_EQ(request(4).url.rfind(
                "https://sdk.svc.example/install_data/v3/id123?devkey=DEVKEY-TEST&device_id=", 0),
            0U);
}

}  // namespace
}  // namespace quorvel
