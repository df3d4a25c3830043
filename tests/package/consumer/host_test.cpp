// A host's own test of its integration, written against the installed test kit only: the
// launch and an event run on virtual time, and the test reads what would have been sent.
#include <algorithm>
#include <atomic>
#include <filesystem>

#include <gtest/gtest.h>

#include <quorvel/QuorvelTracker.h>
#include <quorvel/platform/SystemLog.h>
#include <quorvel/testing/TestPlatform.h>

using namespace std::chrono_literals;

TEST(MyAppAnalytics, ThePurchaseEventGoesOutWithItsValue) {
  quorvel::PosixPlatformOptions app;  // what the library reports of the app
  app.bundleIdentifier = "com.example.myapp";
  auto kit = quorvel::testkit::makeTestPlatform("MY-DEV-KEY", app);  // all in memory

  quorvel::QuorvelTracker tracker(kit.platform);
  tracker.setQuorvelDevKey(std::string("MY-DEV-KEY"));
  tracker.setAppleAppID(std::string("123456789"));
  tracker.trackAppLaunch();
  tracker.trackEvent("purchase_made", std::string("9.99"));
  kit.dispatcher->advance(5s);

  const auto sent = kit.transport->sent();
  const auto purchase = std::find_if(sent.begin(), sent.end(), [](const auto& r) {
    return r.payload && r.payload->value("event", "") == "purchase_made";
  });
  ASSERT_NE(purchase, sent.end());
  EXPECT_EQ(purchase->payload->value("eventvalue", ""), "9.99");
  EXPECT_EQ(purchase->queryParameter("app_id"), "123456789");
  EXPECT_EQ(purchase->payload->value("bundleIdentifier", ""), "com.example.myapp");

  // Offline: the next event is kept, and goes out once the network is back.
  kit.transport->setResponder([](const auto&) { return quorvel::testkit::Answer::offline(); });
  tracker.trackEvent("level_up", std::nullopt);
  kit.dispatcher->advance(5s);
  kit.transport->setResponder(nullptr);
  kit.transport->clear();
  tracker.trackEvent("came_back", std::nullopt);  // its answer starts the replay
  kit.dispatcher->advance(5s);
  const auto replayed = kit.transport->sent();
  EXPECT_TRUE(std::any_of(replayed.begin(), replayed.end(), [](const auto& r) {
    return r.payload && r.payload->value("event", "") == "level_up" &&
           r.queryParameter("isCachedRequest") == "true";
  }));
  EXPECT_TRUE(kit.preferences->objectForKey("QuorvelCounter"));  // kept in memory only
}

// With the files on disk, what the library keeps outlives the tracker, as it does the app.
TEST(MyAppAnalytics, TheInstallIdentityOutlivesARestart) {
  const auto dir = std::filesystem::temp_directory_path() / "myapp-restart-test";
  std::filesystem::remove_all(dir);
  quorvel::PosixPlatformOptions options;
  options.dataDirectory = dir / "data";
  options.keychainDirectory = dir / "keychain";
  std::string uid;
  {
    auto kit = quorvel::testkit::makeTestPlatform(options, "MY-DEV-KEY");
    quorvel::QuorvelTracker tracker(kit.platform);
    uid = tracker.getQuorvelUID();
    kit.dispatcher->advance(1s);
  }
  auto kit = quorvel::testkit::makeTestPlatform(options, "MY-DEV-KEY");
  EXPECT_EQ(quorvel::QuorvelTracker(kit.platform).getQuorvelUID(), uid);
  std::filesystem::remove_all(dir);
}

// The library writes its log through the host's own: a platform part the host makes and the
// library calls (its virtual functions and type information cross the library's boundary).
struct CountingLog final : quorvel::platform::SystemLog {
  std::atomic<int> lines = 0;
  void write(std::string_view) noexcept override { ++lines; }
};

TEST(MyAppAnalytics, TheLibraryLogsThroughTheHostsLog) {
  auto platform = *quorvel::testkit::makeTestPlatform("MY-DEV-KEY").platform;
  const auto log = std::make_shared<CountingLog>();
  platform.systemLog = log;
  quorvel::QuorvelTracker tracker(std::make_shared<const quorvel::Platform>(platform));
  tracker.setIsDebug(true);
  tracker.setQuorvelDevKey(std::string("MY-DEV-KEY"));
  EXPECT_FALSE(tracker.getQuorvelUID().empty());
  EXPECT_GT(log->lines, 0);
}
