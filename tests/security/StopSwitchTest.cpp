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

  facade->setStopped(false);
  tracker->setQuorvelDevKey(std::string(kDevKey));
  tracker->setAppleAppID(std::string("123"));
  tracker->setHost(std::string("svc.example"));
  facade->trackEvent("after_stop", std::nullopt);
  fakes.dispatcher->advance(1s);
  std::vector<std::string> events;
  for (std::size_t i = 0; i < sent().size(); ++i)
    events.push_back(payload(i).value("event", ""));
  std::sort(events.begin(), events.end());
  // What was accepted before the stop goes at the first start that runs, once; nothing of the
  // stopped time does.
  EXPECT_EQ(events, (std::vector<std::string>{"after_stop", "before_stop"}));
}

}  // namespace
}  // namespace quorvel
