// Remote debugging ships a tracker's log to its own service, when that service asks: never a
// line of another tracker in the same process, never a line from before it asked.
#include <gtest/gtest.h>

#include "log/Log.h"
#include "log/QuorvelProxyManager.h"
#include "support/Decrypt.h"
#include "support/TestPlatform.h"
#include "tracker/TrackerCore.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

struct App {
  explicit App(const std::string& key) : devKey(key) {
    facade = std::make_unique<QuorvelTracker>(fakes.shared());
    core = &coreOf(*facade);
    core->setQuorvelDevKey(devKey);
    core->setAppleAppID(std::string("123"));
    core->setHost(std::string("svc.example"));
  }
  // Answers everything sent so far; `monitor` 1 asks for the log.
  void answerAll(int monitor) {
    fakes.dispatcher->advance(300ms);
    for (; answered < fakes.requests().size(); ++answered)
      fakes.respond(answered, 200, Json{{"monitor", monitor}}.dump());
    fakes.dispatcher->advance(10ms);
  }
  std::string collected() { return core->remoteDebugging().getJSONString().value_or(""); }

  std::string devKey;
  test::TestPlatform fakes;
  std::unique_ptr<QuorvelTracker> facade;
  TrackerCore* core = nullptr;
  std::size_t answered = 0;
};

TEST(RemoteDebugging, EachTrackerCollectsOnlyItsOwnLinesAndOnlyOnceItsServiceAsks) {
  App a("AAAA-KEY-OF-APP-A");
  App b("BBBB-KEY-OF-APP-B");
  a.core->trackEvent("a_before_asked", std::nullopt);
  a.answerAll(0);
  EXPECT_EQ(a.collected().find("a_before_asked"), std::string::npos);
  EXPECT_FALSE(a.core->remoteDebugging().isRemoteDebugging());

  a.core->trackAppLaunch();
  a.answerAll(1);  // A's service asks for the log
  b.core->trackAppLaunch();
  b.core->trackEvent("b_private_event", std::nullopt);
  b.answerAll(0);  // B's does not
  a.core->trackEvent("a_after_asked", std::nullopt);
  a.answerAll(1);

  const std::string fromA = a.collected();
  EXPECT_NE(fromA.find("a_after_asked"), std::string::npos) << fromA.substr(0, 400);
  EXPECT_EQ(fromA.find("b_private_event"), std::string::npos);
  EXPECT_EQ(fromA.find(maskedSecret(b.devKey)), std::string::npos);
  EXPECT_EQ(fromA.find("KEY-OF-APP-B"), std::string::npos);
  EXPECT_NE(fromA.find(maskedSecret(a.devKey)), std::string::npos);
  EXPECT_FALSE(b.core->remoteDebugging().isRemoteDebugging());
  EXPECT_EQ(b.collected().find("b_private_event"), std::string::npos);
  // Nothing reached the process's collection, which only the shared tracker ships.
  EXPECT_EQ(
      QuorvelProxyManager::sharedManager().getJSONString().value_or("").find("b_private_event"),
      std::string::npos);
}

}  // namespace
}  // namespace quorvel
