#include <quorvel/QuorvelTracker.h>
#include <quorvel/platform/SearchAds.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "log/QuorvelProxyManager.h"
#include "support/Decrypt.h"
#include "support/TestPlatform.h"
#include "support/TrackerFixture.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

struct AnsweringAdClient final : platform::SearchAdsClient, platform::SearchAdsClientClass {
  Json details = Json{{"Version3.1", Json{{"iad-attribution", "true"}}}};
  int requests = 0;
  void requestAttributionDetailsWithBlock(platform::AttributionDetailsHandler handler) override {
    ++requests;
    handler(details, std::nullopt);
  }
  std::shared_ptr<platform::SearchAdsClient> sharedClient() override { return self.lock(); }
  std::weak_ptr<AnsweringAdClient> self;
};

class LaunchAndEventsTest : public test::TrackerFixture {};

// The launch leaves after 250 ms; event counters are written in one group within 100 ms, not
// once per event. (That a launch is durable before it leaves is shown by the crash-safety test.)
TEST_F(LaunchAndEventsTest, LaunchLeavesAfter250msAndEventCountsAreWrittenInOneGroup) {
  tracker->trackAppLaunch();
  fakes.dispatcher->advance(249ms);
  EXPECT_TRUE(sent().empty());
  fakes.dispatcher->advance(1ms);
  ASSERT_EQ(sent().size(), 1U);
  // Built on the serial queue; the outbox's queue sends it once it is written.
  const auto ran = fakes.dispatcher->ranOn();
  EXPECT_EQ(ran.at(ran.size() - 2), "com.quorvel.serial");
  EXPECT_EQ(ran.back(), "com.quorvel.outbox");

  const int writes = fakes.preferences->synchronizeCount();
  for (int i = 0; i < 3; ++i)
    tracker->trackEvent("level", std::nullopt);
  fakes.dispatcher->advance(1ms);
  ASSERT_EQ(sent().size(), 4U);
  EXPECT_FALSE(fakes.preferences->durable().contains(keys::kInAppCounter));
  fakes.dispatcher->advance(100ms);
  EXPECT_EQ(fakes.preferences->durable()[keys::kInAppCounter], 3);
  EXPECT_EQ(fakes.preferences->synchronizeCount(), writes + 1);
}

TEST_F(LaunchAndEventsTest, SessionIntervalIsStrictlyGreater) {
  struct Case {
    std::uint64_t minimum;
    std::chrono::milliseconds gap;
    bool sent;
  };
  const Case cases[] = {
      {5, 2s, false}, {5, 5s, false}, {5, 5001ms, true}, {0, 0ms, false}, {0, 1ms, true}};
  for (const auto& c : cases) {
    test::TestPlatform local;
    QuorvelProxyManager::sharedManager().stopRemoteDebugging();
    TrackerCore t(local.shared(), QuorvelProxyManager::sharedManager());
    t.setQuorvelDevKey(std::string(kDevKey));
    t.setMinTimeBetweenSessions(c.minimum);
    // The decision itself, as the serial queue runs it.
    t.sendLaunchToServer();
    local.clock->advance(c.gap);
    t.sendLaunchToServer();
    EXPECT_EQ(local.requests().size(), c.sent ? 2U : 1U) << c.minimum << " " << c.gap.count();
  }
}

// Switched off, the lookup is not made; on, its answer after a launch sends one follow-up.
TEST_F(LaunchAndEventsTest, SearchAdsAnswerAfterTheLaunchSendsOneFollowUp) {
  auto ads = std::make_shared<AnsweringAdClient>();
  ads->self = ads;
  fakes.classRegistry->registerClass("ADClient", ads);
  tracker->setDisableIAdTracking(true);
  tracker->trackAppLaunch();
  fakes.dispatcher->advance(5s);
  EXPECT_EQ(ads->requests, 0);
  tracker->setDisableIAdTracking(false);
  fakes.clock->advance(10s);
  tracker->trackAppLaunch();
  fakes.dispatcher->advance(250ms);  // the launch payload raises the flag
  EXPECT_TRUE(tracker->permitAggregateiAdData());
  fakes.dispatcher->advance(2s);  // the Search Ads answer
  ASSERT_EQ(sent().size(), 3U);
  EXPECT_EQ(sent()[2].url,
            "https://attr.svc.example/api/v4.8/iosevent?app_id=123&buildnumber=4.8.0");
  EXPECT_EQ(payload(2)["qv_iad_data"], ads->details);
  EXPECT_FALSE(tracker->permitAggregateiAdData());
  EXPECT_EQ(fakes.preferences->objectForKey(keys::kSearchAdsAttribution), ads->details);
  // Stored: never asked again.
  fakes.clock->advance(10s);
  tracker->trackAppLaunch();
  fakes.dispatcher->advance(5s);
  EXPECT_EQ(ads->requests, 1);
  EXPECT_EQ(sent().size(), 4U);
}

TEST_F(LaunchAndEventsTest, BackgroundCountsTheSessionAndSendsStatistics) {
  tracker->trackAppLaunch();
  fakes.dispatcher->advance(250ms);
  fakes.clock->advance(42s);
  fakes.preferences->setDouble(keys::kGetConversionDataTiming, 0.5);
  fakes.notifications->post({platform::kApplicationDidEnterBackgroundNotification, Json()});
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(fakes.preferences->integerForKey(keys::kRealLaunchCounter), 1);
  const auto stats = fakes.requests(test::kBackgroundSession);
  ASSERT_EQ(stats.size(), 1U);
  const auto& r = stats[0];
  EXPECT_EQ(r.url, "https://stats.svc.example/stats?app_id=123");
  const Json body = Json::parse(r.body.begin(), r.body.end());
  const std::string uid = tracker->getQuorvelUID();
  const Json want = {{"app_id", "123"},
                     {"devkey", kDevKey},
                     {"uid", uid},
                     {"time_in_app", 42.0},
                     {"statType", "user_closed_app"},
                     {"launch_counter", 1},
                     {"platform", "iOS"},
                     {"gcd_conversion_data_timing", 0.5},
                     {"advertiserId", ""},
                     {"originalQuorvelId", uid}};
  EXPECT_EQ(body, want);
}

TEST_F(LaunchAndEventsTest, BackgroundEdgeCases) {
  tracker->setDeviceTrackingDisabled(true);
  tracker->backgroundstatCall();  // no launch in this process
  const auto r = fakes.requests(test::kBackgroundSession).at(0);
  const Json body = Json::parse(r.body.begin(), r.body.end());
  EXPECT_EQ(body["time_in_app"], 0.0);
  EXPECT_EQ(body["deviceTrackingDisabled"], "true");
  tracker->setAppleAppID(std::nullopt);
  tracker->backgroundstatCall();
  EXPECT_EQ(fakes.systemLog->count("could not track move to background: "), 1U);
  EXPECT_EQ(fakes.requests(test::kBackgroundSession).size(), 1U);

  fakes.device->systemVersionValue = "6.1";
  tracker->handleEnteredBackground();
  EXPECT_FALSE(fakes.preferences->objectForKey(keys::kRealLaunchCounter));
}

TEST_F(LaunchAndEventsTest, ValueEventsGoAfter1msOnTheMainQueue) {
  const std::pair<std::optional<std::string>, bool> cases[] = {
      {"12.50", true},  {"-", true}, {"12,50", false},
      {"USD 5", false}, {"", false}, {std::nullopt, false}};
  for (const auto& [value, revenue] : cases) {
    fakes.systemLog->clear();
    tracker->trackEvent("purchase_made", value);
    EXPECT_EQ(fakes.systemLog->count("will be categorized as a revenue event."), revenue ? 1U : 0U)
        << value.value_or("nil");
  }
  EXPECT_TRUE(sent().empty());
  fakes.dispatcher->advance(1ms);
  ASSERT_EQ(sent().size(), std::size(cases));
  const auto ran = fakes.dispatcher->ranOn();
  EXPECT_EQ(std::count(ran.begin(), ran.end(), "main"), static_cast<long>(std::size(cases)));
  EXPECT_EQ(sent()[0].url,
            "https://events.svc.example/api/v4.8/iosevent?app_id=123&buildnumber=4.8.0");
  EXPECT_EQ(payload(0)["eventvalue"], "12.50");
  EXPECT_EQ(payload(5)["eventvalue"], "");
}

TEST_F(LaunchAndEventsTest, DictionaryEventsGoAfter100msOnTheSerialQueue) {
  tracker->trackEventWithValues("level_up", Json{{"name", "a, b"}, {"n", 3}, {"u", "\xc3\xa9 x"}});
  tracker->trackEventWithValues("nothing_set", std::nullopt);
  tracker->trackEventWithValues("bad_value", Json{{"x", Json::binary({1})}});
  tracker->trackLocation(13.4, 52.5);
  fakes.dispatcher->advance(99ms);
  EXPECT_TRUE(sent().empty());
  fakes.dispatcher->advance(1ms);
  ASSERT_EQ(sent().size(), 4U);
  const auto ran = fakes.dispatcher->ranOn();
  EXPECT_EQ(std::count(ran.begin(), ran.end(), "main"), 0);
  EXPECT_EQ(payload(0)["eventvalue"],
            "%7B%22name%22:%22a%2C%20b%22%2C%22n%22:3%2C%22u%22:%22%C3%A9%20x%22%7D");
  EXPECT_EQ(payload(1)["eventvalue"], "null");
  EXPECT_EQ(payload(2)["eventvalue"], "");
  EXPECT_EQ(payload(3)["event"], "qv_location_coordinates");
  EXPECT_EQ(payload(3)["eventvalue"], "%7B%22qv_long%22:13.4%2C%22qv_lat%22:52.5%7D");
}

TEST_F(LaunchAndEventsTest, BadBytesFromTheHostCostACharacterNeverTheReport) {
  const std::string bad = "a\xff\xc3";  // a stray byte and a cut sequence
  const std::string fixed = "a\xEF\xBF\xBD\xEF\xBF\xBD";
  struct Case {
    const char* name;
    std::function<void(QuorvelTracker&)> call;
    const char* key;  // the payload key that carries the text
    std::string expected;
  };
  const Case cases[] = {
      {"event name", [&](auto& t) { t.trackEvent(bad, bad); }, "event", fixed},
      {"event value", [&](auto& t) { t.trackEvent("e", bad); }, "eventvalue", fixed},
      {"event values",
       [&](auto& t) {
         t.trackEventWithValues(bad, Json{{bad, 1}});
       },
       "event", fixed},
      {"customer id",
       [&](auto& t) {
         t.setCustomerUserID(bad);
         t.trackEvent("e", std::nullopt);
       },
       "appUID", fixed},
      {"custom data",
       [&](auto& t) {
         t.setAdditionalData(Json{{"k", bad}});
         t.trackEvent("e", std::nullopt);
       },
       "customData", "{\"k\":\"" + fixed + "\"}"},
      {"deep custom data",
       [&](auto& t) {
         Json deep = Json::array();
         for (int i = 0; i < 200; ++i)
           deep = Json::array({deep});
         t.setAdditionalData(Json{{"k", deep}});
         t.trackEvent("e", std::nullopt);
       },
       "customData", ""},
      {"push payload",
       [&](auto& t) {
         t.handlePushNotification(Json{{"qv", Json{{"c", bad}}}});
         t.trackAppLaunch();
       },
       "qv_deeplink", "{\"c\":\"" + fixed + "\"}"},
  };
  for (const auto& c : cases) {
    fakes.systemLog->clear();
    tracker->setAdditionalData(Json::object());
    tracker->setCustomerUserID(std::nullopt);
    const auto before = sent().size();
    c.call(*facade);
    fakes.dispatcher->advance(10s);
    ASSERT_GT(sent().size(), before) << c.name;
    const Json p = payload(before);  // the report; a launch may add other requests
    ASSERT_FALSE(p.is_discarded()) << c.name;
    if (c.expected.empty()) {
      EXPECT_FALSE(p.contains(c.key)) << c.name;
      EXPECT_EQ(fakes.systemLog->count("customData is not valid json data"), 1U) << c.name;
    } else {
      EXPECT_EQ(p.value(c.key, ""), c.expected) << c.name;
    }
  }
}

// After a call the outbox's queue watches the intake for a while, so that the calls made
// meanwhile only push; a second without calls ends the watch, and the next call wakes it.
TEST_F(LaunchAndEventsTest, TheIntakeIsWatchedWhileCallsComeAndLetGoOnceTheyStop) {
  const auto outboxTurns = [&] {
    const auto ran = fakes.dispatcher->ranOn();
    return std::count(ran.begin(), ran.end(), "com.quorvel.outbox");
  };
  tracker->trackEvent("first", std::nullopt);
  fakes.dispatcher->advance(1ms);
  ASSERT_EQ(sent().size(), 1U);
  const auto pending = fakes.dispatcher->pendingCount();
  tracker->trackEvent("watched", std::nullopt);
  EXPECT_EQ(fakes.dispatcher->pendingCount(), pending);  // no work queued by the call itself
  fakes.dispatcher->advance(3ms);
  ASSERT_EQ(sent().size(), 2U);
  EXPECT_EQ(payload(1)["event"], "watched");

  fakes.dispatcher->advance(1100ms);
  const auto turnsAfterTheWatch = outboxTurns();
  fakes.dispatcher->advance(10s);
  EXPECT_EQ(outboxTurns(), turnsAfterTheWatch);  // an idle tracker's queue is not woken

  tracker->trackEvent("after", std::nullopt);
  fakes.dispatcher->advance(1ms);
  ASSERT_EQ(sent().size(), 3U);
  EXPECT_EQ(payload(2)["event"], "after");
}

TEST_F(LaunchAndEventsTest, ADestroyedTrackerLeavesNothingBehindToRun) {
  tracker->trackAppLaunch();
  tracker->trackEvent("e", std::string("1"));
  facade.reset();
  tracker = nullptr;
  EXPECT_NO_THROW(fakes.dispatcher->advance(1s));
  EXPECT_TRUE(sent().empty());
}

}  // namespace
}  // namespace quorvel
