// The host's consent switch: once stopped, the library collects, stores and sends nothing,
// in this start and the next ones, until the host lets it run again.
#include <gtest/gtest.h>

#include "cache/QuorvelRequestCache.h"
#include "support/TrackerFixture.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

class StopSwitch : public test::TrackerFixture {};

TEST_F(StopSwitch, AStoppedLibraryDoesNothingAcrossStartsUntilItRunsAgain) {
  tracker->trackEvent("before_stop", std::nullopt);  // accepted, not yet sent
  facade->setStopped(true);
  fakes.dispatcher->advance(1s);
  EXPECT_TRUE(sent().empty());  // what was under way waits, unbuilt and unsent
  const auto recordsAtStop = fakes.outbox->size();
  const auto preferencesAtStop = fakes.preferences->durable();
  fakes.systemLog->clear();
  facade->trackAppLaunch();
  facade->trackEvent("while_stopped", std::nullopt);
  facade->setCustomerUserID(std::string("someone"));
  facade->registerUninstall(Bytes{1, 2, 3});
  fakes.dispatcher->advance(10s);
  EXPECT_TRUE(sent().empty());
  EXPECT_EQ(fakes.outbox->size(), recordsAtStop);
  EXPECT_EQ(fakes.preferences->durable(), preferencesAtStop);
  EXPECT_EQ(fakes.systemLog->count("Quorvel is stopped: the call did nothing"), 4U);

  // The next start is stopped too.
  facade.reset();
  facade = std::make_unique<QuorvelTracker>(fakes.shared());
  tracker = &coreOf(*facade);
  EXPECT_TRUE(facade->isStopped());
  facade->trackEvent("next_start", std::nullopt);
  fakes.dispatcher->advance(10s);
  EXPECT_TRUE(sent().empty());

  // A host configures at start, whether the user consented yet or not; that holds once it runs.
  auto delegate = std::make_shared<QuorvelTrackerDelegate>();
  int conversions = 0;
  delegate->onConversionDataReceived = [&](const Json&) { ++conversions; };
  facade->setQuorvelDevKey(std::string(kDevKey));
  facade->setAppleAppID(std::string("123"));
  facade->setHost(std::string("svc.example"));
  facade->setDelegate(delegate);
  facade->setStopped(false);  // what waits goes without a tracking call
  facade->getConversionData();
  fakes.dispatcher->advance(1s);
  std::vector<std::string> events;
  for (std::size_t i = 0; i < sent().size(); ++i) {
    if (request(i).url.find("//events.svc.example/") != std::string::npos)
      events.push_back(payload(i).value("event", ""));
    if (request(i).url.find("//sdk.svc.example/") != std::string::npos)
      fakes.respond(i, 200, "{}");
  }
  fakes.dispatcher->advance(1s);
  std::sort(events.begin(), events.end());
  // What was accepted before the stop goes at the first start that runs, once; nothing of the
  // stopped time does.
  EXPECT_EQ(events, (std::vector<std::string>{"before_stop"}));
  EXPECT_EQ(conversions, 1);
}

// Statistics that a system without a usable background session sends from a background task,
// started on another queue: a stop that comes meanwhile keeps them from leaving.
TEST_F(StopSwitch, StatisticsStartedBeforeAStopDoNotLeaveAfterIt) {
  fakes.device->systemVersionValue = "9.3";
  makeTracker();
  tracker->backgroundstatCall();
  facade->setStopped(true);
  fakes.dispatcher->advance(10s);
  EXPECT_TRUE(sent().empty());
}

// A kept request whose replay a stop cut short goes again once the library runs: its file and
// the chain of replays are let go, not held for good.
TEST_F(StopSwitch, AReplayAStopCutShortGoesAgainOnceTheLibraryRuns) {
  tracker->trackEvent("kept", std::nullopt);
  fakes.dispatcher->advance(1ms);
  fakes.fail(0, Error{platform::kURLErrorDomain, -1004, "refused"});  // the folder takes it
  fakes.dispatcher->advance(1s);  // the start's replay of the folder
  const auto replaying = [&] { return sent().back().url.ends_with("&isCachedRequest=true"); };
  ASSERT_TRUE(replaying());
  facade->setStopped(true);
  facade->setStopped(false);
  facade->trackEvent("after_the_stop", std::nullopt);
  fakes.dispatcher->advance(1s);
  ASSERT_EQ(payload(sent().size() - 1).value("event", ""), "after_the_stop");
  fakes.respond(sent().size() - 1, 200, "{}");  // an answer replays the folder
  fakes.dispatcher->advance(1s);
  EXPECT_TRUE(replaying());
}

}  // namespace
}  // namespace quorvel
