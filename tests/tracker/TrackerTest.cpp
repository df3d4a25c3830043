#include <quorvel/QuorvelTracker.h>
#include <quorvel/Version.h>

#include <thread>

#include <gtest/gtest.h>

#include "common/QuorvelAES128Crypto.h"
#include "log/QuorvelProxyManager.h"
#include "support/TestPlatform.h"
#include "support/TrackerFixture.h"

namespace quorvel {
namespace {

class TrackerTest : public test::TrackerFixture {
 protected:
  TrackerTest() : TrackerFixture(false, false) {}
  // Built on first use, so that a test may change the fakes before.
  QuorvelTracker& lazyTracker() { return tracker ? *tracker : makeTracker(); }
};

TEST_F(TrackerTest, FreshTrackerHasTheDefaults) {
  auto& t = lazyTracker();
  EXPECT_EQ(t.minTimeBetweenSessions(), 5U);
  EXPECT_TRUE(t.shouldCollectDeviceName());
  EXPECT_EQ(t.advertiserId(), "");
  EXPECT_EQ(t.host(), kQuorvelDefaultHost);
  EXPECT_FALSE(t.isDebug() || t.disableAppleAdSupportTracking() || t.deviceTrackingDisabled() ||
               t.disableIAdTracking() || t.useReceiptValidationSandbox() ||
               t.useUninstallSandbox());
  EXPECT_FALSE(t.quorvelDevKey() || t.appleAppID() || t.customerUserID() || t.customData() ||
               t.currencyCode() || t.appInviteHoplineID() || t.lastLaunchTime() || t.delegate() ||
               t.crypto());
  EXPECT_EQ(t.platfromDevName(), "iOS_Native");
  EXPECT_EQ(t.backgroundQueue()->label(), "com.quorvel.serial");
  EXPECT_EQ(t.getSDKVersion(), "version: 4.8.0 (build 597)");
  EXPECT_EQ(fakes.systemLog->count("Quorvel SDK version 4.8.0 started build (597)"), 1U);
  // The session clock starts with the tracker.
  EXPECT_EQ(QVSessionStartDate(), fakes.clock->now());
}

TEST_F(TrackerTest, SettersLogWhatTheyShould) {
  auto& t = lazyTracker();
  QVSetShowDebugLogs(true);
  t.setIsDebug(false);
  EXPECT_EQ(fakes.systemLog->count("set to debug mode"), 0U);
  EXPECT_FALSE(kQVLoggerShowLogs.load());
  t.setIsDebug(true);
  EXPECT_EQ(
      fakes.systemLog->count(
          "[DEBUG] Quorvel: -[QuorvelTracker setIsDebug:] * * * Quorvel is set to debug mode. "
          "This should only be used in development enviornment!!!! * * *"),
      1U);
  t.setUseReceiptValidationSandbox(false);
  t.setUseReceiptValidationSandbox(true);
  EXPECT_EQ(fakes.systemLog->count("verify in app purchases on Apple sandbox"), 2U);
  t.setShouldCollectDeviceName(false);
  EXPECT_EQ(fakes.systemLog->count("setShouldCollectDeviceName is called with flag: NO"), 1U);
  EXPECT_FALSE(t.shouldCollectDeviceName());
  t.setCustomerUserID(std::string("cust-1"));
  t.setCustomerUserID(std::nullopt);
  EXPECT_EQ(fakes.systemLog->count("SetCustomerId = cust-1"), 1U);
  EXPECT_EQ(fakes.systemLog->count("SetCustomerId = (null)"), 1U);
  EXPECT_FALSE(t.customerUserID());
  t.setIsTrace(true);
  EXPECT_TRUE(kQVLoggerShowLogsTrace.load());
}

TEST_F(TrackerTest, CustomDataCanBeReplacedButNotCleared) {
  auto& t = lazyTracker();
  t.setAdditionalData(Json{{"level", 3}});
  t.setAdditionalData(std::nullopt);
  t.setAdditionalData(Json());
  EXPECT_EQ(t.customData(), (Json{{"level", 3}}));
  t.setAdditionalData(Json{{"level", 4}});
  EXPECT_EQ(t.customData(), (Json{{"level", 4}}));
}

TEST_F(TrackerTest, NilHostRestoresTheDefaultDomain) {
  auto& t = lazyTracker();
  t.setHost(std::string("localhost:8443"));
  EXPECT_EQ(t.host(), "localhost:8443");
  t.setHost(std::nullopt);
  EXPECT_EQ(t.host(), kQuorvelDefaultHost);
}

TEST_F(TrackerTest, EveryDevKeyMakesANewCipher) {
  auto& t = lazyTracker();
  t.setQuorvelDevKey(std::string("0123456789AB"));
  const auto first = t.crypto();
  t.setQuorvelDevKey(std::string("0123456789AB"));
  const auto second = t.crypto();
  ASSERT_TRUE(first && second);
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(second->password(), "0123456789AB");
  t.setQuorvelDevKey(std::nullopt);
  ASSERT_TRUE(t.crypto());
  EXPECT_FALSE(t.crypto()->password());
}

TEST_F(TrackerTest, BundleValuesOrEmptyString) {
  EXPECT_EQ(lazyTracker().getValueFromBundle("CFBundleVersion"), "7");
  EXPECT_EQ(lazyTracker().getValueFromBundle("NoSuchKey"), "");
}

TEST_F(TrackerTest, LaunchOptionsAreCapturedFromDidFinishLaunching) {
  auto& t = lazyTracker();
  QVSetShowDebugLogs(true);
  fakes.notifications->post({platform::kApplicationDidFinishLaunchingNotification, Json()});
  EXPECT_FALSE(t.sourceApplication() || t.deeplink());
  fakes.notifications->post(
      {platform::kApplicationDidFinishLaunchingNotification,
       Json{{"UIApplicationLaunchOptionsSourceApplicationKey", "com.other.app"},
            {"UIApplicationLaunchOptionsURLKey", "myapp://open?x=1"}}});
  EXPECT_EQ(t.sourceApplication(), "com.other.app");
  EXPECT_EQ(t.deeplink(), "myapp://open?x=1");
  EXPECT_EQ(
      fakes.systemLog->count("didFinishLaunchingWithOptions. Source application: com.other.app"),
      1U);
  EXPECT_EQ(fakes.systemLog->count("didFinishLaunchingWithOptions. Deeplink URL: myapp://open?x=1"),
            1U);
  // Options without a source replace it with nothing.
  fakes.notifications->post({platform::kApplicationDidFinishLaunchingNotification, Json::object()});
  EXPECT_FALSE(t.sourceApplication() || t.deeplink());
}

TEST_F(TrackerTest, WillTerminateUnsubscribes) {
  auto& t = lazyTracker();
  fakes.notifications->post({platform::kApplicationWillTerminateNotification, Json()});
  fakes.notifications->post({platform::kApplicationDidFinishLaunchingNotification,
                             Json{{"UIApplicationLaunchOptionsURLKey", "myapp://late"}}});
  EXPECT_FALSE(t.deeplink());
}

TEST_F(TrackerTest, NoSubscriptionWithoutMultitasking) {
  fakes.device->multitasking = false;
  auto& t = lazyTracker();
  fakes.notifications->post({platform::kApplicationDidFinishLaunchingNotification,
                             Json{{"UIApplicationLaunchOptionsURLKey", "myapp://x"}}});
  EXPECT_FALSE(t.deeplink());
}

TEST_F(TrackerTest, DelegateIsHeldWeakly) {
  auto& t = lazyTracker();
  auto delegate = std::make_shared<QuorvelTrackerDelegate>();
  t.setDelegate(delegate);
  EXPECT_EQ(t.delegate(), delegate);
  delegate.reset();
  EXPECT_EQ(t.delegate(), nullptr);
}

TEST_F(TrackerTest, SharedTrackerIsCreatedOnceUnderConcurrentFirstCalls) {
  std::vector<std::thread> threads;
  std::vector<QuorvelTracker*> seen(8, nullptr);
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = &QuorvelTracker::sharedTracker(); });
  }
  for (auto& th : threads)
    th.join();
  for (auto* p : seen)
    EXPECT_EQ(p, seen[0]);
  EXPECT_EQ(&QuorvelTracker::sharedTracker(), seen[0]);
  EXPECT_EQ(fakes.systemLog->count("Quorvel SDK version 4.8.0 started build (597)"), 1U);
}

TEST(TrackerConstants, VersionConstants) {
  EXPECT_DOUBLE_EQ(QuorvelTrackerVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(QuorvelTrackerVersionString),
               "@(#)PROGRAM:QuorvelTracker  PROJECT:QuorvelLib-1\n");
}

}  // namespace
}  // namespace quorvel
