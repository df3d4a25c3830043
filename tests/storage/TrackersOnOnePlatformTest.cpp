// Trackers made on one platform share its data directory as processes do: one holds it, the
// others keep their reports for it, and one made after another ended holds it again.
#include <algorithm>
#include <filesystem>
#include <set>

#include <gtest/gtest.h>

#include <quorvel/QuorvelTracker.h>
#include <quorvel/testing/TestPlatform.h>

#include "support/Eventually.h"
#include "support/TempDir.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

// One platform on a folder of its own, and configured trackers made on it.
struct OnePlatform {
  test::TempDir dir;
  testkit::TestPlatform kit = testkit::makeTestPlatform(
      [this] {
        PosixPlatformOptions options;
        options.bundleIdentifier = "com.example.two";
        options.dataDirectory = dir / "app";
        options.keychainDirectory = dir / "keychain";
        return options;
      }(),
      "TWO-KEY");
  std::unique_ptr<QuorvelTracker> configured() const {
    auto tracker = std::make_unique<QuorvelTracker>(kit.platform);
    tracker->setQuorvelDevKey(std::string("TWO-KEY"));
    tracker->setAppleAppID(std::string("123456789"));
    return tracker;
  }
  // The events the service was sent, by name.
  std::multiset<std::string> sentEvents() const {
    std::multiset<std::string> events;
    for (const auto& request : kit.transport->sent()) {
      if (request.payload && request.service() == "events")
        events.insert(request.payload->value("event", ""));
    }
    return events;
  }
};

TEST(TrackersOnOnePlatform, EachReportGoesOnceAndALaterTrackerHoldsTheFolderAgain) {
  OnePlatform one;
  auto& kit = one.kit;
  const auto configured = [&] { return one.configured(); };
  kit.transport->setResponder([](const auto&) { return testkit::Answer::offline(); });
  auto first = configured();
  first->trackEvent("first", std::nullopt);
  auto second = configured();
  second->trackEvent("second", std::nullopt);
  kit.dispatcher->advance(10s);
  EXPECT_FALSE(first->deliveryStats().dataDirectoryHeldElsewhere);
  EXPECT_TRUE(second->deliveryStats().dataDirectoryHeldElsewhere);
  first.reset();
  second.reset();
  kit.transport->setResponder(nullptr);
  kit.transport->clear();

  auto third = configured();
  third->trackEvent("third", std::nullopt);
  kit.dispatcher->advance(10s);
  EXPECT_EQ(one.sentEvents(), (std::multiset<std::string>{"first", "second", "third"}));
  EXPECT_FALSE(third->deliveryStats().dataDirectoryHeldElsewhere);
}

// The folder emptied under the holder, then a second tracker: an idle holder whose watch saw
// the removal locks the folder again first (the second is its guest), and makes its outbox
// again with what the removed one held; one that did not look meanwhile stops holding at its
// next write (the second holds). Either way one holder at a time, and each report goes once,
// the one that waited in the removed outbox too. (One that failed before and became a
// kept-request file went with the folder.)
class FolderEmptied : public ::testing::TestWithParam<bool> {};

TEST_P(FolderEmptied, OneHolderAfterItAndEachReportOnce) {
  const bool holderLooksFirst = GetParam();
  OnePlatform one;
  auto& kit = one.kit;
  const auto& dir = one.dir;
  const auto configured = [&] { return one.configured(); };
  kit.transport->setResponder([](const auto&) { return testkit::Answer::offline(); });
  auto first = configured();
  first->trackEvent("before", std::nullopt);
  kit.dispatcher->advance(10s);
  EXPECT_EQ(first->deliveryStats().keptAsFiles, 1U);
  kit.transport->setResponder([](const auto&) {
    return testkit::Answer{503, "{}", "application/json", {}, {}};
  });
  first->trackEvent("waiting", std::nullopt);
  kit.dispatcher->advance(10s);
  std::error_code ec;
  std::filesystem::remove_all(dir / "app", ec);
  const std::string lock = dir / "app/Library/QuorvelOutbox.sqlite.lock";
  if (holderLooksFirst) {
    EXPECT_TRUE(test::eventually([&] {
      kit.dispatcher->advance(300ms);
      return std::filesystem::exists(lock);
    }));
  }
  auto second = configured();
  second->trackEvent("second", std::nullopt);
  EXPECT_TRUE(test::eventually([&] {  // sent by the holder, idle or not
    kit.dispatcher->advance(300ms);
    return std::ranges::any_of(kit.transport->sent(), [](const auto& request) {
      return request.payload && request.payload->value("event", "") == "second";
    });
  }));
  first->trackEvent("after", std::nullopt);
  kit.dispatcher->advance(10s);
  EXPECT_EQ(first->deliveryStats().dataDirectoryHeldElsewhere, !holderLooksFirst);
  EXPECT_EQ(second->deliveryStats().dataDirectoryHeldElsewhere, holderLooksFirst);
  second.reset();
  first.reset();
  kit.transport->setResponder(nullptr);
  kit.transport->clear();
  auto third = configured();
  kit.dispatcher->advance(10s);
  EXPECT_EQ(one.sentEvents(), (std::multiset<std::string>{"waiting", "second", "after"}));
}

INSTANTIATE_TEST_SUITE_P(TrackersOnOnePlatform, FolderEmptied, ::testing::Bool(),
                         [](const auto& info) {
                           return std::string(info.param ? "HolderLooksFirst" : "SecondTakesIt");
                         });

}  // namespace
}  // namespace quorvel
