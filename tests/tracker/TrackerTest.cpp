#include <quorvel/QuorvelTracker.h>

#include <thread>

#include <gtest/gtest.h>

#include "log/QuorvelProxyManager.h"
#include "support/TestPlatform.h"
#include "support/TrackerFixture.h"
#include "tracker/TrackerCore.h"

namespace quorvel {
namespace {

class TrackerTest : public test::TrackerFixture {
 protected:
  TrackerTest() : TrackerFixture(true, false) {}
};

// Nil from the host: custom data stays, the host goes back to the default domain.
TEST_F(TrackerTest, NilSettersKeepCustomDataAndRestoreTheDefaultHost) {
  auto& t = *tracker;
  t.setAdditionalData(Json{{"level", 3}});
  t.setAdditionalData(std::nullopt);
  t.setAdditionalData(Json());
  EXPECT_EQ(t.customData(), (Json{{"level", 3}}));
  t.setAdditionalData(Json{{"level", 4}});
  EXPECT_EQ(t.customData(), (Json{{"level", 4}}));
  t.setHost(std::string("localhost:8443"));
  t.setHost(std::nullopt);
  EXPECT_EQ(t.host(), kQuorvelDefaultHost);
}

TEST_F(TrackerTest, LaunchOptionsAreCapturedUntilTheAppTerminates) {
  auto& t = *tracker;
  const auto launched = [&](Json options) {
    fakes.notifications->post(
        {platform::kApplicationDidFinishLaunchingNotification, std::move(options)});
  };
  launched(Json());
  EXPECT_FALSE(t.sourceApplication() || t.deeplink());
  launched(Json{{"UIApplicationLaunchOptionsSourceApplicationKey", "com.other.app"},
                {"UIApplicationLaunchOptionsURLKey", "myapp://open?x=1"}});
  EXPECT_EQ(t.sourceApplication(), "com.other.app");
  EXPECT_EQ(t.deeplink(), "myapp://open?x=1");
  // Options without a source replace it with nothing.
  launched(Json::object());
  EXPECT_FALSE(t.sourceApplication() || t.deeplink());
  fakes.notifications->post({platform::kApplicationWillTerminateNotification, Json()});
  launched(Json{{"UIApplicationLaunchOptionsURLKey", "myapp://late"}});
  EXPECT_FALSE(t.deeplink());
  // Without multitasking the tracker never subscribes.
  test::TestPlatform single;
  single.device->multitasking = false;
  TrackerCore other(single.shared(), QuorvelProxyManager::sharedManager());
  single.notifications->post({platform::kApplicationDidFinishLaunchingNotification,
                              Json{{"UIApplicationLaunchOptionsURLKey", "myapp://x"}}});
  EXPECT_FALSE(other.deeplink());
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
}

}  // namespace
}  // namespace quorvel
