// A flush waits for work that runs on the main queue. When the waiting thread is the one that
// would turn that queue (exit() or flush from a delegate callback, a host's loop that stopped
// at exit), the flush must run that work itself instead of waiting out its bound.
#include <future>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include <quorvel/QuorvelTracker.h>
#include <quorvel/RunLoopQueue.h>

#include "log/QuorvelProxyManager.h"
#include "support/TempDir.h"
#include "support/TlsTestServer.h"
#include "tracker/TrackerCore.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

struct Case {
  const char* name;
  bool hostLoop;           // the host turns the main queue (else: the library's own thread)
  bool fromMainQueueItem;  // the flush runs inside a main-queue item (a delegate callback)
};

class FlushOnTheMainQueue : public ::testing::TestWithParam<Case> {};

TEST_P(FlushOnTheMainQueue, RunsTheQueuedWorkAndSettlesWellWithinItsBound) {
  const Case c = GetParam();
  test::TempDir root;
  test::TlsTestServer server({"events.localhost"});
  // No kept-alive connection for the server to wait out when the test ends.
  server.onRequest([](const auto&, auto& response) {
    response.set_header("Connection", "close");
    response.set_content("{}", "application/json");
  });
  PosixPlatformOptions options;
  options.bundleIdentifier = "com.example.flushtest";
  options.dataDirectory = root / "data";
  options.keychainDirectory = root / "keychain";
  options.extraCAFile = server.caFile();
  std::shared_ptr<RunLoopQueue> loop;
  Platform given;
  if (c.hostLoop) {
    loop = std::make_shared<RunLoopQueue>("main");
    given.dispatcher = makePosixDispatcher(loop);
  }
  const auto platform = std::make_shared<const Platform>(makePosixPlatform(options, given));
  std::optional<TrackerCore> made;
  TrackerCore& tracker = made.emplace(platform, QuorvelProxyManager::sharedManager());
  tracker.setQuorvelDevKey(std::string("FLUSH-TEST-KEY"));
  tracker.setAppleAppID(std::string("123456789"));
  tracker.setHost(server.domain());

  constexpr int kEvents = 5;
  const auto trackAndFlush = [&tracker] {
    for (int i = 0; i < kEvents; ++i)
      tracker.trackEvent("flushed", std::to_string(i));
    const auto start = std::chrono::steady_clock::now();
    const bool settled = tracker.flush(30s);
    return std::pair(settled, std::chrono::steady_clock::now() - start);
  };
  std::pair<bool, std::chrono::steady_clock::duration> result;
  if (c.fromMainQueueItem) {
    std::promise<void> done;
    platform->dispatcher->mainQueue()->async([&] {
      result = trackAndFlush();
      done.set_value();
    });
    if (loop)
      loop->drain();  // the host's loop turns once, and the callback exits inside it
    ASSERT_EQ(done.get_future().wait_for(60s), std::future_status::ready);
  } else {
    result = trackAndFlush();  // the loop never turns again
  }
  EXPECT_TRUE(result.first);
  // Far below the bound: a flush that waited for itself would take all 30 s.
  EXPECT_LT(result.second, 20s);
  EXPECT_TRUE(server.waitForRequests(kEvents, 1s));
  made.reset();
  if (loop)
    loop->discardPending();  // the host's loop has ended: what waited on it is released
}

INSTANTIATE_TEST_SUITE_P(Queues, FlushOnTheMainQueue,
                         ::testing::Values(Case{"HostLoopThatStoppedTurning", true, false},
                                           Case{"CallbackOnAHostLoop", true, true},
                                           Case{"CallbackOnTheLibrarysMainThread", false, true}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvel
