#include <quorvel/QuorvelTracker.h>
#include <quorvel/platform/AdSupport.h>

#include <gtest/gtest.h>

#include "common/QuorvelUtils.h"
#include "log/QuorvelProxyManager.h"
#include "support/Decrypt.h"
#include "support/TrackerFixture.h"
#include "util/PreferenceKeys.h"
#include "util/QuorvelDictionary.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

struct FakeAdManager final : platform::AdvertisingIdentifierManager,
                             platform::AdvertisingIdentifierManagerClass {
  std::optional<std::string> advertisingIdentifier() override {
    return "6D92078A-8246-4BA4-AE5B-76104861E7DC";
  }
  bool isAdvertisingTrackingEnabled() override { return true; }
  std::shared_ptr<platform::AdvertisingIdentifierManager> sharedManager() override {
    return self.lock();
  }
  std::weak_ptr<FakeAdManager> self;
};

class PayloadTest : public test::TrackerFixture {
 protected:
  PayloadTest() : TrackerFixture(false, false) {}
  void SetUp() override {
    TrackerFixture::SetUp();
    fakes.fileSystem->setDates("/app/Library", fakes.clock->now() - 48h, std::nullopt);
    fakes.fileSystem->setDates("/app/tmp", std::nullopt, fakes.clock->now() - 24h);
    fakes.sysctl->byNameAnswers["hw.machine"] =
        Bytes{'i', 'P', 'h', 'o', 'n', 'e', '1', '0', ',', '3', 0};
    makeTracker();
    tracker->setQuorvelDevKey(std::string("DEVKEY-0123"));
    delegate = std::make_shared<QuorvelTrackerDelegate>();
    delegate->onAppOpenAttribution = [this](const Json& d) { opened.push_back(d); };
    tracker->setDelegate(delegate);
  }
  std::shared_ptr<QuorvelTrackerDelegate> delegate;
  std::vector<Json> opened;
};

TEST_F(PayloadTest, FirstLaunchKeysInOrder) {
  fakes.preferences->setInteger(keys::kReInstallCounter, 0);  // zero reinstalls: left out
  const Json d = tracker->getEventParameters(true).dict();
  EXPECT_EQ(test::keyList(d),
            "uid serverApiVersion name systemname systemversion model localizedmodel platform "
            "platformextension counter sessioncounter iaecounter dev_key deviceData qv_events_api "
            "timepassedsincelastlaunch advertiserId advertiserIdEnabled bundleIdentifier vendorId "
            "bundleversion bundlename shortbundleversion date1 date2 date3 firstLaunchDate "
            "currentLanguage lang_code currentCountrycode timestamp wifi JBDevice");
  EXPECT_EQ(d["serverApiVersion"], "4.8");
  EXPECT_EQ(d["platform"], "iPhone10,3");
  EXPECT_EQ(d["platformextension"], "iOS_Native");
  EXPECT_EQ(d["sessioncounter"], "1");
  EXPECT_EQ(d["iaecounter"], "0");
  EXPECT_EQ(d["dev_key"], "DEVKEY-0123");
  EXPECT_EQ(d["deviceData"]["cpu_count"], "1");
  EXPECT_EQ(d["qv_events_api"], "1");
  EXPECT_EQ(d["timepassedsincelastlaunch"], "-1.000000");
  EXPECT_EQ(d["advertiserId"], "");
  EXPECT_EQ(d["advertiserIdEnabled"], false);  // a boolean, not a string
  EXPECT_EQ(d["bundlename"], "");              // missing from the info dictionary
  EXPECT_EQ(d["date1"], "2023-11-12_221320+0000");
  EXPECT_EQ(d["date2"], "2023-11-13_221320+0000");
  EXPECT_EQ(d["date3"], "2023-11-13_221320+0000");
  EXPECT_EQ(d["firstLaunchDate"], "2023-11-14_221320+0000");
  EXPECT_EQ(d["timestamp"], "1700000000.000000");
  EXPECT_EQ(d["wifi"], false);
  EXPECT_EQ(d["JBDevice"], false);
  EXPECT_EQ(fakes.preferences->stringForKey(keys::kInstallTimestamp), "1700000000.000000");
}

TEST_F(PayloadTest, OptionalKeysAppearWithTheirConditions) {
  tracker->setShouldCollectDeviceName(false);
  tracker->setDeviceTrackingDisabled(true);
  tracker->setCurrencyCode(std::string("EU"));
  tracker->setCustomerUserID(std::string("cust-7"));
  tracker->setAdditionalData(Json{{"tier", "gold"}});
  tracker->setAppInviteHopline(std::string("tmpl1"));
  fakes.preferences->setString(keys::kHoplineVersion, "2");
  fakes.preferences->setObject(keys::kConversionData, Json{{"origin", "unpaid"}});
  fakes.preferences->setInteger(keys::kReInstallCounter, 2);
  fakes.preferences->setString(keys::kOriginalUserId, "orig-1");
  fakes.preferences->setObject(keys::kSearchAdsAttribution, Json{{"Version3.1", Json::object()}});
  tracker->setUserEmails(Json::array({"a@example.com", 42}), 2);
  const Json d = tracker->getEventParameters(false).dict();
  EXPECT_FALSE(d.contains("name"));
  EXPECT_FALSE(d.contains("timepassedsincelastlaunch"));
  EXPECT_EQ(d["deviceTrackingDisabled"], "true");
  EXPECT_EQ(d["currency"], "EU");
  EXPECT_EQ(
      fakes.systemLog->count("currency code should be 3 characters!!! 'EU' is not a legal value."),
      1U);
  EXPECT_EQ(d["appUID"], "cust-7");
  EXPECT_EQ(d["customData"], R"({"tier":"gold"})");
  EXPECT_EQ(d["installAttribution"], (Json{{"origin", "unpaid"}}));
  EXPECT_EQ(d["reinstallCounter"], "2");
  EXPECT_EQ(d["originalQuorvelId"], "orig-1");
  EXPECT_EQ(d["user_emails"], "{\"md5_el_arr\":[\"" + QuorvelUtils::md5("a@example.com") + "\"]}");
  EXPECT_EQ(fakes.systemLog->count("Warning: email provided are not in the right format."), 1U);
  EXPECT_EQ(d["qv_iad_data"], (Json{{"Version3.1", Json::object()}}));
  EXPECT_EQ(d["hopline_id"], "tmpl1");
  EXPECT_EQ(d["hopline_ver"], "2");
  EXPECT_FALSE(tracker->permitAggregateiAdData());
  EXPECT_EQ(d["counter"], "0");
  EXPECT_EQ(d["iaecounter"], "1");
}

TEST_F(PayloadTest, AdvertisingIdentifierThroughTheRegistry) {
  auto manager = std::make_shared<FakeAdManager>();
  manager->self = manager;
  fakes.classRegistry->registerClass("ASIdentifierManager", manager);
  Json d = tracker->getEventParameters(false).dict();
  EXPECT_EQ(d["advertiserId"], "6D92078A-8246-4BA4-AE5B-76104861E7DC");
  EXPECT_EQ(d["advertiserIdEnabled"], true);
  EXPECT_EQ(tracker->advertiserId(), "6D92078A-8246-4BA4-AE5B-76104861E7DC");
  tracker->setDisableAppleAdSupportTracking(true);
  d = tracker->getEventParameters(false).dict();
  EXPECT_EQ(d["advertiserId"], "");
  EXPECT_EQ(d["advertiserIdEnabled"], false);
}

TEST_F(PayloadTest, PendingLinkAndPushArePassedOnLaunchesOnlyAndMarkedLinksAreSplit) {
  tracker->setDeeplink(std::string("myapp://open?x=1"));
  tracker->setSourceApplication(std::string("com.other"));
  tracker->setPushPayload(Json{{"qv", Json{{"c", "push"}}}});
  Json d = tracker->getEventParameters(false).dict();
  EXPECT_FALSE(d.contains("qv_deeplink"));
  EXPECT_TRUE(tracker->deeplink() && tracker->pushPayload());
  d = tracker->getEventParameters(true).dict();
  // The push payload replaces the link under the same key.
  EXPECT_EQ(d["qv_deeplink"], R"({"qv":{"c":"push"}})");
  EXPECT_EQ(d["deeplink_sourceapplication"], "com.other");
  EXPECT_FALSE(tracker->deeplink() || tracker->sourceApplication() || tracker->pushPayload());
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(opened, (std::vector<Json>{Json{{"link", "myapp://open?x=1"}}}));
  EXPECT_EQ(fakes.dispatcher->ranOn().back(), "main");
  // A link holding the marker is split into its parameters.
  tracker->setDeeplink(std::string("myapp://open/path?qv_deeplink=true&pid=mail&c=spring"));
  tracker->getEventParameters(true);
  fakes.dispatcher->runUntilIdle();
  ASSERT_EQ(opened.size(), 2U);
  EXPECT_EQ(opened[1]["pid"], "mail");
  EXPECT_EQ(opened[1]["c"], "spring");
  EXPECT_EQ(opened[1]["scheme"], "myapp");
  // A push payload that is not an object is logged and cleared, never passed on.
  tracker->setPushPayload(Json::array({1, 2}));
  EXPECT_FALSE(tracker->getEventParameters(true).dict().contains("qv_deeplink"));
  EXPECT_FALSE(tracker->pushPayload());
  EXPECT_EQ(fakes.systemLog->count("pushPayload is not valid json data"), 1U);
}

TEST_F(PayloadTest, OwnShortLinksAreResolvedAndMergedAndAFailureOnlyLosesTheCallback) {
  tracker->setHost(std::string("svc.example"));
  const std::string link = std::string("https://go.") + kHoplineSchema + "/tmpl/abc";
  tracker->setDeeplink(link);
  tracker->getEventParameters(true);
  // The fields stay set until the resolution completes.
  EXPECT_EQ(tracker->deeplink(), link);
  ASSERT_EQ(sent().size(), 1U);
  EXPECT_EQ(request(0).url, "https://hopline.svc.example/shortlink-sdk/v1/tmpl?id=abc");
  fakes.respond(0, 200, R"({"pid":"sms","link":"overridden"})");
  fakes.dispatcher->runUntilIdle();
  ASSERT_EQ(opened.size(), 1U);
  EXPECT_EQ(opened[0], (Json{{"link", "overridden"}, {"pid", "sms"}}));
  EXPECT_FALSE(tracker->deeplink());
  // A failed resolution only loses the callback.
  tracker->setDeeplink(link);
  tracker->getEventParameters(true);
  fakes.respond(1, 404, "{}");
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(opened.size(), 1U);
  EXPECT_FALSE(tracker->deeplink());
}

TEST_F(PayloadTest, PasteboardOnlyBeforeVersionSeven) {
  fakes.application->pasteboards["fb_app_attribution"] = "fbattr";
  fakes.device->systemVersionValue = "6.1";
  EXPECT_EQ(tracker->getEventParameters(false).dict()["fb"], "fbattr");
  fakes.device->systemVersionValue = "7.0";
  EXPECT_FALSE(tracker->getEventParameters(false).dict().contains("fb"));
}

}  // namespace
}  // namespace quorvel
