#include <quorvel/QuorvelTracker.h>

#include <gtest/gtest.h>

#include "log/QuorvelProxyManager.h"
#include "support/TestPlatform.h"
#include "support/TrackerFixture.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

class ConversionDataTest : public test::TrackerFixture {
 protected:
  void SetUp() override {
    TrackerFixture::SetUp();
    delegate = std::make_shared<QuorvelTrackerDelegate>();
    delegate->onConversionDataReceived = [this](const Json& d) {
      received.push_back(d);
      queues.push_back(onMain() ? "main" : "callback");
    };
    delegate->onConversionDataRequestFailure = [this](const Error& e) {
      failures.push_back(e);
      queues.push_back(onMain() ? "main" : "callback");
    };
    tracker->setDelegate(delegate);
  }
  bool onMain() { return fakes.dispatcher->mainQueue()->isCurrent(); }
  void answer(long status, const std::string& body) {
    fakes.respond(sent().size() - 1, status, body);
    fakes.dispatcher->runUntilIdle();
  }

  std::shared_ptr<QuorvelTrackerDelegate> delegate;
  std::vector<Json> received;
  std::vector<Error> failures;
  std::vector<std::string> queues;
};

TEST_F(ConversionDataTest, FreshAnswerIsCleanedStoredAndDelivered) {
  tracker->getConversionData();
  ASSERT_EQ(sent().size(), 1U);
  const std::string uid = tracker->getQuorvelUID();
  EXPECT_EQ(sent()[0].url,
            "https://sdk.svc.example/install_data/v3/id123?devkey=DEVKEY-TEST&device_id=" + uid);
  EXPECT_EQ(sent()[0].method, "GET");
  fakes.clock->advance(250ms);
  answer(200,
         R"({"origin":"paid","source":null,"nested":{"x":null,"y":[null,1]},"iscache":false})");
  const Json want = Json::parse(R"({"origin":"paid","nested":{"y":[1]}})");
  EXPECT_EQ(received, std::vector<Json>{want});
  EXPECT_EQ(queues, std::vector<std::string>{"callback"});
  EXPECT_EQ(fakes.preferences->durable()[keys::kConversionData], want);
  EXPECT_DOUBLE_EQ(fakes.preferences->doubleForKey(keys::kConversionDataCacheExpiration),
                   platform::secondsSince1970(fakes.clock->now()));
  EXPECT_DOUBLE_EQ(fakes.preferences->doubleForKey(keys::kGetConversionDataTiming), 0.25);

  // Later calls are served from the stored copy on the main queue, after 1 ms.
  tracker->getConversionData();
  EXPECT_EQ(sent().size(), 1U);
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(received.size(), 1U);
  fakes.dispatcher->advance(1ms);
  EXPECT_EQ(received.size(), 2U);
  EXPECT_EQ(queues.back(), "main");
}

TEST_F(ConversionDataTest, SixtyDaysLaterItAsksOnceAgain) {
  fakes.preferences->setObject(keys::kConversionData, Json{{"old", 1}});
  fakes.preferences->setDouble(keys::kConversionDataCacheExpiration,
                               platform::secondsSince1970(fakes.clock->now()) - 5184001);
  tracker->getConversionData();
  EXPECT_EQ(sent().size(), 1U);
  EXPECT_EQ(fakes.preferences->doubleForKey(keys::kConversionDataCacheExpiration), 0);
  fakes.fail(0, Error{platform::kURLErrorDomain, -1009, "offline"});
  fakes.dispatcher->advance(1ms);
  ASSERT_EQ(failures.size(), 1U);
  EXPECT_EQ(failures[0].code, -1009);
  EXPECT_EQ(queues.back(), "main");
  // The old copy is served again, now without expiry.
  tracker->getConversionData();
  fakes.dispatcher->advance(1ms);
  EXPECT_EQ(received, (std::vector<Json>{Json{{"old", 1}}}));
}

TEST_F(ConversionDataTest, RejectionsAreCountedUpToTheLimit) {
  for (int i = 0; i < 5; ++i) {
    tracker->getConversionData();
    answer(403, "forbidden");
  }
  ASSERT_EQ(failures.size(), 5U);
  EXPECT_EQ(failures[0].code, 403);
  EXPECT_EQ(failures[0].domain, "com.quorvel.ErrorDomain");
  EXPECT_EQ(failures[0].localizedDescription,
            "Quorvel error response from server. Check your Quorvel key and Apple app ID.");
  EXPECT_EQ(fakes.preferences->integerForKey(keys::kConversionDataRequestRetries), 5);
  tracker->getConversionData();
  fakes.dispatcher->advance(1s);
  EXPECT_EQ(sent().size(), 5U);
  EXPECT_EQ(failures.size(), 5U);
}

TEST_F(ConversionDataTest, ServerErrorsNonListenersAndCachedAnswersLeaveNoState) {
  tracker->getConversionData();
  answer(503, "");
  EXPECT_EQ(failures.at(0).code, 503);
  EXPECT_FALSE(fakes.preferences->objectForKey(keys::kConversionDataRequestRetries));
  delegate->onConversionDataRequestFailure = nullptr;
  tracker->getConversionData();
  answer(404, "");
  EXPECT_FALSE(fakes.preferences->objectForKey(keys::kConversionDataRequestRetries));
  // An answer the service served from its cache is delivered but sets no expiration.
  tracker->getConversionData();
  answer(200, R"({"origin":"unpaid","iscache":true})");
  EXPECT_EQ(received.at(0), (Json{{"origin", "unpaid"}}));
  EXPECT_FALSE(fakes.preferences->objectForKey(keys::kConversionDataCacheExpiration));
}

TEST_F(ConversionDataTest, BadBodies) {
  const std::tuple<std::string, std::int64_t, std::string> cases[] = {
      {"", 1, "Quorvel Empty response from server."},
      {"[1,2]", 0, "Quorvel bad JSON response."},
      {"<html>", 3840, "The data couldn't be read because it isn't in the correct format."},
  };
  for (const auto& [body, code, text] : cases) {
    failures.clear();
    tracker->getConversionData();
    answer(200, body);
    ASSERT_EQ(failures.size(), 1U) << body;
    EXPECT_EQ(failures[0].code, code) << body;
    EXPECT_EQ(failures[0].localizedDescription, text) << body;
  }
  EXPECT_TRUE(received.empty());
}

TEST_F(ConversionDataTest, OnlyAnInterestedDelegateGetsARequest) {
  delegate->onConversionDataReceived = nullptr;
  tracker->getConversionData();
  EXPECT_TRUE(sent().empty());
  // A delegate that goes away mid-flight is never called.
  delegate->onConversionDataReceived = [this](const Json& d) { received.push_back(d); };
  tracker->getConversionData();
  delegate.reset();
  answer(200, R"({"a":1})");
  EXPECT_TRUE(received.empty());
  EXPECT_FALSE(fakes.preferences->objectForKey(keys::kConversionData));
  // Loading with a delegate sets it first, so that the request goes.
  auto other = std::make_shared<QuorvelTrackerDelegate>();
  other->onConversionDataReceived = [](const Json&) {};
  tracker->loadConversionDataWithDelegate(other);
  EXPECT_EQ(tracker->delegate(), other);
  EXPECT_EQ(sent().size(), 2U);
}

}  // namespace
}  // namespace quorvel
