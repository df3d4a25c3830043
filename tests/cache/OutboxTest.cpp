// Delivery from the call on, on virtual time: a kill (a tracker dropped without a flush, the
// next one made on the same stores), an answer that never came, the replay of the kept
// folder while its last request is on the wire, a full folder, a full disk, the bounds, and
// the moment an event's timestamp names.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

#include "cache/Outbox.h"
#include "cache/QuorvelRequestCache.h"
#include "support/TrackerFixture.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

const Error kOutboxRefused{platform::kURLErrorDomain, -1004, "refused"};

class OutboxTest : public test::TrackerFixture {
 protected:
  // A new process on the same disk: what the dropped tracker wrote of its preferences and
  // outbox is all the next one finds.
  // `durable`: the preferences as the disk last took them, when it refused the later ones.
  std::unique_ptr<QuorvelTracker> restart(
      std::optional<std::map<std::string, Json>> durable = std::nullopt) {
    facade.reset();
    if (!durable)
      durable = fakes.preferences->durable();
    fakes.preferences = std::make_shared<test::MemoryPreferencesStore>();
    for (const auto& [key, value] : *durable)
      fakes.preferences->setObject(key, value);
    makeTracker();
    return std::move(facade);
  }
  // The kept-request folder holds its 41 files: a failed request stays in the outbox.
  void fillTheKeptFolder() {
    for (int i = 0; i < 41; ++i)
      fakes.fileSystem->writeFileAtomically(
          "/app/Library/Caches/QuorvelCache/x" + std::to_string(i), Bytes{'x'});
  }
  void putAReceipt() {
    fakes.bundle->receiptPath = "/app/receipt";
    fakes.fileSystem->writeFileAtomically("/app/receipt", Bytes{'r', 'c', 'p'});
  }
  // Answers every request from `first` on, and what they start, until nothing more goes.
  void answerAllFrom(std::size_t first) {
    for (std::size_t answered = first, before = 0; before != sent().size();) {
      before = sent().size();
      fakes.dispatcher->advance(200ms);
      for (; answered < sent().size(); ++answered)
        fakes.respond(answered, 200, "{}");
    }
  }
  // The indexes of the reports of `event` sent so far, and what they carried.
  std::vector<std::size_t> copiesOf(const std::string& event) {
    std::vector<std::size_t> at;
    for (std::size_t i = 0; i < sent().size(); ++i)
      if (request(i).url.find("/api/v4.8/iosevent") != std::string::npos &&
          payload(i).value("event", "") == event)
        at.push_back(i);
    return at;
  }
  std::vector<Json> payloadsOf(const std::string& event) {
    std::vector<Json> out;
    for (const std::size_t i : copiesOf(event))
      out.push_back(payload(i));
    return out;
  }
};

TEST_F(OutboxTest, AKillLosesNothingAndRepeatsOnlyWhatMayHaveArrived) {
  tracker->trackAppLaunch();
  tracker->trackEvent("answered", std::string("1"));
  tracker->trackEvent("answered", std::string("2"));
  fakes.dispatcher->advance(250ms);
  ASSERT_EQ(sent().size(), 3U);  // two events, then the launch, which stays on the wire
  fakes.respond(0, 200, "{}");
  fakes.respond(1, 200, "{}");
  fakes.dispatcher->runUntilIdle();
  fakes.dispatcher->advance(1s);  // the intake's watch ends: the next call wakes the queue
  const double calledAt = platform::secondsSince1970(fakes.clock->now());
  tracker->trackEvent("not_built", std::string("3"));
  fakes.dispatcher->advance(500us);  // its record is written; the kill comes before its build
  EXPECT_EQ(fakes.outbox->size(), 2U + 1U);  // two reports and the kept counters
  const auto before = tracker->deliveryStats();
  EXPECT_EQ(before.accepted, 4U);
  EXPECT_EQ(before.delivered, 2U);
  EXPECT_EQ(before.waiting, 2U);

  fakes.clock->advance(30s);
  // The kill came before the preferences' group commit: the counters given are known from
  // the outbox alone, and never given again.
  fakes.preferences->removeObjectForKey(keys::kInAppCounter);
  fakes.preferences->synchronize();
  const auto next = restart();
  tracker->trackAppLaunch();  // the first call of the new process sends what was left
  fakes.dispatcher->advance(250ms);
  // The launch that was on the wire goes again unchanged, marked as a replay; the event
  // is built now, stamped with the moment of its call, its counter after the ones sent.
  std::vector<std::size_t> replays;
  for (std::size_t i = 3; i < sent().size(); ++i)
    if (request(i).url.find("&isCachedRequest=true") != std::string::npos)
      replays.push_back(i);
  ASSERT_EQ(replays.size(), 1U);
  EXPECT_NE(request(replays[0]).url.find("&timeincache=31.25"), std::string::npos);
  EXPECT_EQ(request(replays[0]).body, request(2).body);
  const auto rebuilt = payloadsOf("not_built");
  ASSERT_EQ(rebuilt.size(), 1U);
  EXPECT_EQ(rebuilt[0]["eventvalue"], "3");
  EXPECT_NEAR(std::stod(rebuilt[0]["timestamp"].get<std::string>()), calledAt, 0.001);
  EXPECT_EQ(rebuilt[0]["iaecounter"], "3");
  ASSERT_EQ(sent().size(), 6U);
  EXPECT_EQ(payload(5)["counter"], "2");
  for (std::size_t i = 3; i < sent().size(); ++i)
    fakes.respond(i, 200, "{}");
  fakes.dispatcher->advance(1ms);  // the removals' batch
  const auto after = tracker->deliveryStats();
  EXPECT_EQ(after.repeated, 1U);
  EXPECT_EQ(after.waiting, 0U);
  EXPECT_EQ(fakes.outbox->size(), 1U);  // the counters only
}

// The kept folder's replay while its last request is still unanswered: a fresh answer then
// must not load that file again.
TEST_F(OutboxTest, AKeptRequestIsNeverOnTheWireTwice) {
  tracker->trackEvent("kept", std::nullopt);
  fakes.dispatcher->advance(1ms);
  fakes.fail(0, kOutboxRefused);
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(tracker->requestCache()->getCacheSize(), 1U);
  tracker->trackEvent("fresh", std::nullopt);
  fakes.dispatcher->advance(1ms);
  fakes.respond(1, 200, "{}");
  fakes.dispatcher->advance(100ms);  // the replay starts
  ASSERT_EQ(sent().size(), 3U);
  EXPECT_NE(request(2).url.find("isCachedRequest=true"), std::string::npos);
  tracker->trackEvent("another", std::nullopt);
  fakes.dispatcher->advance(1ms);
  fakes.respond(3, 200, "{}");  // answered while the replay is on the wire
  fakes.dispatcher->advance(200ms);
  EXPECT_EQ(sent().size(), 4U);
  fakes.respond(2, 200, "{}");
  fakes.dispatcher->advance(200ms);
  EXPECT_EQ(sent().size(), 4U);
  EXPECT_EQ(tracker->requestCache()->getCacheSize(), 0U);
}

// A kill after the folder took a failed request and before the outbox's removal was written
// leaves it in both: the next process sends one copy.
TEST_F(OutboxTest, ARequestInTheFolderAndTheOutboxGoesOnce) {
  tracker->trackEvent("kept", std::nullopt);
  fakes.dispatcher->advance(1ms);
  const auto written = fakes.outbox->load(0, 10);  // its built request, before the answer
  ASSERT_EQ(written.size(), 1U);
  fakes.fail(0, kOutboxRefused);
  fakes.dispatcher->runUntilIdle();
  ASSERT_EQ(tracker->requestCache()->getCacheSize(), 1U);
  const auto next = restart();
  fakes.outbox->apply({{written[0].id, written[0].content}});  // the removal never reached it
  tracker->trackEvent("fresh", std::nullopt);
  answerAllFrom(1);
  EXPECT_EQ(payloadsOf("kept").size(), 2U);
  EXPECT_EQ(tracker->deliveryStats().waiting, 0U);
  EXPECT_EQ(fakes.outbox->size(), 1U);  // the counters only
}

// With the folder full, a failed request waits in the outbox and goes again after a jittered
// backoff; a success resets it; with nothing to send, nothing is scheduled.
TEST_F(OutboxTest, AFailedRequestTheFolderCannotTakeWaitsAndRetriesWithBackoff) {
  fillTheKeptFolder();
  tracker->trackEvent("waits", std::nullopt);
  fakes.dispatcher->advance(1ms);
  fakes.fail(0, kOutboxRefused);
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(tracker->deliveryStats().waiting, 1U);
  fakes.dispatcher->advance(2s);  // the first retry comes within 2 s
  ASSERT_EQ(sent().size(), 2U);
  EXPECT_NE(request(1).url.find("isCachedRequest=true"), std::string::npos);
  fakes.fail(1, kOutboxRefused);
  fakes.dispatcher->advance(4s);  // then within 4 s
  ASSERT_EQ(sent().size(), 3U);
  fakes.respond(2, 200, "{}");
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(tracker->deliveryStats().delivered, 1U);
  EXPECT_EQ(tracker->deliveryStats().waiting, 0U);
  fakes.dispatcher->advance(2s);  // the store's sync
  EXPECT_EQ(fakes.dispatcher->pendingCount(), 0U);
}

// The same app started twice on one data directory: the second tracker says so, leaves the
// first one's kept folder alone, and gives its reports no counters while the first one may
// still give some. Once the first lets the directory go, they go, numbered after its last.
TEST_F(OutboxTest, ASecondProcessWaitsForTheDataDirectoryAndNumbersAfterTheFirst) {
  tracker->trackEvent("first_process", std::nullopt);
  fakes.dispatcher->advance(1ms);
  fakes.fail(0, kOutboxRefused);
  fakes.dispatcher->runUntilIdle();
  ASSERT_EQ(tracker->requestCache()->getCacheSize(), 1U);
  fakes.outbox->setHeldElsewhere(true);
  const auto second = restart();
  // The first process goes on numbering after the second one read the preferences.
  ASSERT_TRUE(fakes.outbox->apply({{0, Json{{keys::kInAppCounter, 7}}.dump()}}));
  tracker->trackEvent("second_process", std::nullopt);
  fakes.dispatcher->advance(6s);  // the lock is tried again meanwhile
  EXPECT_EQ(sent().size(), 1U);
  const auto held = tracker->deliveryStats();
  EXPECT_TRUE(held.dataDirectoryHeldElsewhere);
  EXPECT_EQ(held.waiting, 1U);
  EXPECT_EQ(held.notKept, 1U);  // this store keeps nothing for the holder: in memory only
  EXPECT_EQ(fakes.systemLog->count("another process uses this app's data directory"), 1U);
  EXPECT_EQ(fakes.outbox->size(), 1U);  // the first one's counters only

  fakes.outbox->setHeldElsewhere(false);  // the first process exits
  fakes.dispatcher->advance(10s);
  ASSERT_EQ(sent().size(), 2U);
  EXPECT_EQ(payload(1)["event"], "second_process");
  EXPECT_EQ(payload(1)["iaecounter"], "8");
  EXPECT_EQ(fakes.outbox->size(), 2U);  // its report, on disk now
  fakes.respond(1, 200, "{}");
  fakes.dispatcher->advance(1s);
  ASSERT_EQ(sent().size(), 3U);  // the first one's kept request, now this one's to send
  EXPECT_EQ(payload(2)["event"], "first_process");
  fakes.respond(2, 200, "{}");
  fakes.dispatcher->runUntilIdle();
  const auto taken = tracker->deliveryStats();
  EXPECT_FALSE(taken.dataDirectoryHeldElsewhere);
  EXPECT_EQ(taken.delivered,
            2U);  // its own report and the kept file it sent, as the service counts
  EXPECT_EQ(taken.waiting, 0U);
}

// A purchase numbers its event where the counters are given out, as an event does: a second
// process never gives out the `iaecounter` the first one may still be giving. Stopped while it
// waits for that, it is dropped: neither written nor sent, not even once the library runs again.
TEST_F(OutboxTest, ASecondProcessNumbersItsPurchaseAfterTheFirst) {
  for (const bool stopped : {true, false}) {
    SCOPED_TRACE(stopped ? "stopped while it waits" : "running");
    putAReceipt();
    fakes.outbox->setHeldElsewhere(true);
    const auto second = restart();
    ASSERT_TRUE(fakes.outbox->apply({{0, Json{{keys::kInAppCounter, 7}}.dump()}}));
    tracker->validateAndTrackInAppPurchase(std::string("gems"), std::string("1"),
                                           std::string("EUR"), std::string("tx-1"), std::nullopt,
                                           nullptr, nullptr);
    fakes.dispatcher->advance(2s);
    EXPECT_TRUE(payloadsOf("qv_purchase").empty());
    if (stopped)
      second->setStopped(true);
    const auto records = fakes.outbox->size();
    fakes.outbox->setHeldElsewhere(false);  // the first process exits
    fakes.dispatcher->advance(10s);
    if (stopped) {
      EXPECT_EQ(fakes.outbox->size(), records);
      second->setStopped(false);
      fakes.dispatcher->advance(10s);
    }
    const auto purchases = payloadsOf("qv_purchase");
    ASSERT_EQ(purchases.size(), stopped ? 0U : 1U);
    EXPECT_TRUE(stopped || purchases[0]["iaecounter"] == "8");
  }
}

// A second process that ends before its next try at the data directory tries it once more
// at its exit: the first one may have let it go, and what the second kept in memory then goes
// at the next start instead of being lost.
TEST_F(OutboxTest, ASecondProcessThatEndsAfterTheFirstLeavesItsReportsToTheNextStart) {
  fakes.outbox->setHeldElsewhere(true);
  auto second = restart();
  tracker->trackEvent("second_process", std::nullopt);
  fakes.dispatcher->advance(1ms);
  EXPECT_TRUE(payloadsOf("second_process").empty());
  fakes.outbox->setHeldElsewhere(false);  // the first process ends; the next try is 0.5 s away
  second.reset();
  const auto next = restart();
  const std::size_t before = sent().size();
  tracker->trackEvent("next_start", std::nullopt);
  answerAllFrom(before);
  EXPECT_EQ(payloadsOf("second_process").size(), 1U);
  EXPECT_EQ(tracker->deliveryStats().waiting, 0U);
}

// While requests cannot leave, no more are built: the reports behind them wait as intents,
// and after a kill all of them, read back a page at a time, go once.
TEST_F(OutboxTest, FailedRequestsHoldTheBuildsBackAndAllGoAfterAKill) {
  fillTheKeptFolder();
  for (int i = 0; i < 210; ++i)
    tracker->trackEvent("offline", std::to_string(i));
  fakes.dispatcher->advance(10ms);
  ASSERT_EQ(sent().size(), 128U);
  for (std::size_t i = 0; i < 128; ++i)
    fakes.fail(i, kOutboxRefused);
  fakes.dispatcher->advance(1ms);
  EXPECT_EQ(sent().size(), 128U);  // the failed ones keep their places until answered

  const auto next = restart();
  tracker->trackEvent("new", std::nullopt);
  answerAllFrom(128);
  const auto offline = payloadsOf("offline");
  std::set<std::string> values;
  for (const auto& p : offline)
    values.insert(p.value("eventvalue", ""));
  EXPECT_EQ(values.size(), 210U);
  EXPECT_EQ(offline.size(), 128U + 210U);  // the 128 sent before went again, marked
  EXPECT_EQ(payloadsOf("new").size(), 1U);
  EXPECT_EQ(tracker->deliveryStats().waiting, 0U);
}

// What reaches an outbox after its tracker let the store go (an answer, a send built late) is
// let go too: a built report's send holds the client, which holds the outbox, so kept, it
// held both for ever.
TEST_F(OutboxTest, ASendBuiltAfterTheTrackerEndedIsLetGo) {
  const auto outbox = tracker->outbox();
  facade.reset();  // releases the outbox's store
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> send = held;
  outbox->built(outbox->acceptBuilt(), QuorvelRequestCacheData("https://svc.example/x", {}, "1"),
                [held = std::move(held)] {});
  fakes.dispatcher->advance(1s);
  EXPECT_TRUE(send.expired());
}

// A child made by fork() holds an inert copy of its parent's tracker: its calls and its exit
// flush write nothing to the parent's outbox.
TEST_F(OutboxTest, AForkedChildsTrackerIsInert) {
  tracker->trackEvent("parent", std::nullopt);
  fakes.dispatcher->advance(500us);
  const auto before = fakes.outbox->size();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    facade->trackEvent("child", std::nullopt);
    facade->flushAtExit();
    const bool inert = fakes.outbox->size() == before && facade->deliveryStats().accepted == 0;
    std::_Exit(inert ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(facade->deliveryStats().accepted, 1U);  // the parent's own goes on
}

// A full disk never stops delivery: the reports go from memory, counted and said once; once
// the disk takes writes again, what is still unanswered is written, and only that.
TEST_F(OutboxTest, AFullDiskNeverStopsDeliveryAndKeepsWhatIsUnansweredOnceItFrees) {
  fakes.outbox->setFailWrites(true);
  tracker->trackAppLaunch();
  tracker->trackEvent("first", std::nullopt);
  tracker->trackEvent("second", std::nullopt);
  fakes.dispatcher->advance(300ms);
  ASSERT_EQ(sent().size(), 3U);
  fakes.respond(0, 200, "{}");
  tracker->trackEvent("third", std::nullopt);
  fakes.dispatcher->advance(2s);
  EXPECT_EQ(fakes.systemLog->count("cannot write to the disk"), 1U);
  const auto refused = tracker->deliveryStats();
  EXPECT_GE(refused.notKept, 4U);
  EXPECT_EQ(refused.notKept, refused.accepted);
  EXPECT_EQ(fakes.outbox->size(), 0U);

  fakes.outbox->setFailWrites(false);
  fakes.dispatcher->advance(4s);  // the next try of the writes
  const auto freed = tracker->deliveryStats();
  EXPECT_GE(freed.waiting, 3U);
  EXPECT_EQ(fakes.outbox->size(), freed.waiting + 1);  // the unanswered and the counters
  EXPECT_EQ(fakes.systemLog->count("writing works again"), 1U);
  answerAllFrom(1);
  fakes.dispatcher->advance(1ms);
  EXPECT_EQ(fakes.outbox->size(), 1U);
  EXPECT_EQ(tracker->deliveryStats().delivered, tracker->deliveryStats().accepted);
}

// The exit log tells what waits on disk for the next start from what has no record and ends
// with the process, and says so also when every send had failed before the exit.
TEST_F(OutboxTest, TheExitLogSaysHowManyWaitOnDiskAndHowManyAreLost) {
  tracker->trackEvent("kept", std::nullopt);
  fakes.dispatcher->advance(300ms);
  fakes.outbox->setFailWrites(true);
  tracker->trackEvent("lost", std::nullopt);
  fakes.dispatcher->advance(300ms);
  ASSERT_EQ(sent().size(), 2U);
  fakes.respond(0, 503, "{}");  // settled, and waits to go again
  fakes.dispatcher->runUntilIdle();
  facade->setExitFlushTimeout(20ms);
  facade->flushAtExit();
  EXPECT_EQ(fakes.systemLog->count("2 reports still unanswered after 20 ms: 1 wait in the outbox "
                                   "for the next start, 1 are lost: the outbox could not write"),
            1U);
}

// Counters that went from memory while the disk refused them (the outbox's record 0 and the
// preferences alike) may have reached the service: each later start numbers above them, also
// when the disk is still full at several starts in a row, and the one after the disk freed
// goes on without a gap once they are kept.
TEST_F(OutboxTest, ACounterAFullDiskCouldNotKeepIsNeverGivenAgain) {
  tracker->trackEvent("kept", std::nullopt);
  fakes.dispatcher->advance(300ms);
  fakes.respond(0, 200, "{}");
  fakes.dispatcher->runUntilIdle();
  const auto beforeTheDiskFilled = fakes.preferences->durable();
  fakes.outbox->setFailWrites(true);
  tracker->trackEvent("from_memory", std::nullopt);
  tracker->trackEvent("from_memory", std::nullopt);
  fakes.dispatcher->advance(300ms);
  const auto fromMemory = payloadsOf("from_memory");
  ASSERT_EQ(fromMemory.size(), 2U);  // delivery goes on
  EXPECT_EQ(fromMemory[1]["iaecounter"], "3");

  std::unique_ptr<QuorvelTracker> next;
  int given = 3;
  for (const bool diskFull : {true, true, false}) {  // each start ends in a kill
    next.reset();
    next = restart(beforeTheDiskFilled);
    fakes.outbox->setFailWrites(diskFull);
    tracker->trackEvent("after", std::nullopt);
    fakes.dispatcher->advance(300ms);
    const auto after = payloadsOf("after");
    ASSERT_FALSE(after.empty());
    const int counter = std::stoi(after.back()["iaecounter"].get<std::string>());
    EXPECT_GT(counter, given) << diskFull;
    given = counter;
  }
  answerAllFrom(1);

  next.reset();
  next = restart();
  tracker->trackEvent("later", std::nullopt);
  fakes.dispatcher->advance(300ms);
  const auto later = payloadsOf("later");
  ASSERT_EQ(later.size(), 1U);
  EXPECT_EQ(later[0]["iaecounter"], std::to_string(given + 1));
}

// The launch counter's gap shows (the first launch is the install): a launch whose counter the
// disk refused is numbered again at the next start if it never left, above the reach if it did.
TEST_F(OutboxTest, ALaunchCounterTheDiskRefusedIsGivenAgainOnlyIfItNeverLeft) {
  // A fresh install's first launch on a full disk (no store can be made, no preferences
  // saved) waits for its counters a few seconds, then goes from memory. The process ends
  // after `lives` (`exits`: normally; `stops`: stopped by the user before it went, and with
  // `optsIn` consented to again, so that it goes as a replay before the kill); with
  // `lockedOutAfter`, a start that still finds the disk full launches; then the disk is freed,
  // and the next start launches (consented to again).
  const auto launchCounters = [this](std::chrono::seconds lives, bool exits, bool lockedOutAfter,
                                     bool stops = false, bool optsIn = false) {
    fakes.dispatcher->clear();
    fakes.outbox = std::make_shared<test::MemoryOutboxStore>();
    fakes.outbox->setFailOpen(true);
    const auto firstSent = sent().size();
    auto process = restart(std::map<std::string, Json>{});
    fakes.preferences->setFailWrites(true);
    tracker->trackAppLaunch();
    tracker->trackEvent("own", std::nullopt);
    fakes.dispatcher->advance(1s);  // its write failed
    tracker->trackEvent("own", std::nullopt);
    fakes.dispatcher->advance(lives);
    if (stops) {
      tracker->setStopped(true);
      fakes.dispatcher->advance(10s);
      tracker->setStopped(!optsIn);
      fakes.dispatcher->advance(30s);
    }
    if (exits) {
      process->setExitFlushTimeout(20ms);
      process->flushAtExit();  // the launch still waits: only its counters are written
    }
    if (lockedOutAfter) {
      fakes.dispatcher->clear();
      process = restart();
      tracker->trackAppLaunch();
      fakes.dispatcher->advance(10s);
    }
    fakes.dispatcher->clear();
    process = restart();
    fakes.outbox->setFailOpen(false);
    tracker->setStopped(false);
    tracker->trackAppLaunch();
    fakes.dispatcher->advance(1s);
    std::vector<int> counters;
    for (std::size_t i = firstSent; i < sent().size(); ++i)
      if (request(i).url.starts_with("https://t.") &&
          request(i).url.find("isCachedRequest") == std::string::npos)
        counters.push_back(std::stoi(payload(i)["counter"].get<std::string>()));
    return counters;
  };
  for (const bool exits : {false, true})  // it never left: 1 again
    EXPECT_EQ(launchCounters(2s, exits, false), std::vector<int>{1}) << exits;
  EXPECT_EQ(launchCounters(2s, false, false, true), std::vector<int>{1});
  const auto replayed = launchCounters(2s, false, false, true, true);  // 1 left as a replay
  ASSERT_EQ(replayed.size(), 1U);
  EXPECT_GT(replayed[0], 1);
  // The process's own mark never makes it number above itself.
  const auto own = payloadsOf("own");
  ASSERT_GE(own.size(), 2U);
  EXPECT_EQ(own[1]["iaecounter"], "2");
  for (const bool lockedOutAfter : {false, true}) {
    // It may have reached the service: numbered above, by a start that cannot read the kept
    // counters too.
    const auto left = launchCounters(10s, false, lockedOutAfter);
    ASSERT_EQ(left.size(), lockedOutAfter ? 3U : 2U);
    EXPECT_EQ(left[0], 1);
    EXPECT_GT(left[1], 16) << lockedOutAfter;
    EXPECT_TRUE(!lockedOutAfter || left[2] > left[1]);
  }
}

// A 5xx or a 429 is not a delivery: the report stays, goes again as a replay after the
// backoff (never before a Retry-After), and counts as delivered only once answered 2xx; a
// 4xx is final. What runs after any answer runs for each.
TEST_F(OutboxTest, OnlyA2xxDeliversAnd5xxOr429GoAgain) {
  struct Case {
    long status;
    platform::HeaderList headers;
    std::chrono::seconds noRetryBefore;
    bool goesAgain;
  };
  const std::vector<Case> cases = {
      {503, {}, 0s, true},
      {500, {{"retry-after", "90"}}, 89s, true},
      {429, {{"Retry-After", "Thu, 01 Jan 2065 00:02:00 GMT"}}, 110s, true},
      {302, {}, 0s, true},  // a redirect not followed took nothing either
      {100, {}, 0s, true},
      {404, {}, 0s, false}};
  std::size_t refused = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    // The same moment each time: the clock goes back for every case after the first.
    fakes.clock->set(std::chrono::sys_days(std::chrono::year(2065) / 1 / 1));
    const std::string name = "e" + std::to_string(c.status);
    tracker->trackEvent(name, std::nullopt);
    fakes.dispatcher->advance(2ms);
    ASSERT_EQ(copiesOf(name).size(), 1U);
    fakes.respond(copiesOf(name)[0], c.status, "{}", "application/json", c.headers);
    fakes.dispatcher->runUntilIdle();
    EXPECT_EQ(tracker->deliveryStats().retrying, c.goesAgain ? 1U : 0U);
    fakes.dispatcher->advance(c.noRetryBefore);
    EXPECT_EQ(copiesOf(name).size(), 1U);
    fakes.dispatcher->advance(20min);
    ASSERT_EQ(copiesOf(name).size(), c.goesAgain ? 2U : 1U);
    refused += c.goesAgain ? 0 : 1;
    if (c.goesAgain) {
      const std::size_t again = copiesOf(name)[1];
      EXPECT_NE(request(again).url.find("isCachedRequest=true"), std::string::npos);
      EXPECT_EQ(request(again).url.find("timeincache=-"), std::string::npos);
      fakes.respond(again, 200, "{}");
      fakes.dispatcher->runUntilIdle();
    }
    EXPECT_EQ(tracker->deliveryStats().retrying, 0U);
    EXPECT_EQ(tracker->deliveryStats().refused, refused);
  }
  EXPECT_EQ(tracker->deliveryStats().refused + tracker->deliveryStats().delivered,
            tracker->deliveryStats().accepted - tracker->deliveryStats().waiting);
}

// A copy that may have reached the service makes every later copy a repeat, whatever the
// service answers the later ones; and a report rewritten "unsent" after a 503 may reach it
// again with its retry, which a kill can cut off before the answer.
TEST_F(OutboxTest, A503NeverUndoesACopyThatMayHaveReachedTheService) {
  tracker->trackEvent("unanswered", std::nullopt);
  tracker->trackEvent("retried", std::nullopt);
  fakes.dispatcher->advance(2ms);
  ASSERT_EQ(sent().size(), 2U);
  fakes.respond(1, 503, "{}");
  fakes.dispatcher->runUntilIdle();
  fakes.dispatcher->advance(20min);
  ASSERT_EQ(payloadsOf("retried").size(), 2U);  // on the wire at the kill
  for (int start = 0; start < 2; ++start) {
    SCOPED_TRACE(start);
    fakes.dispatcher->clear();  // the kill
    const std::size_t before = sent().size();
    const auto next = restart();
    fakes.dispatcher->advance(1s);
    ASSERT_EQ(sent().size(), before + 2U);
    EXPECT_EQ(tracker->deliveryStats().repeated, 2U);
    fakes.respond(before, 503, "{}");
    fakes.respond(before + 1, 503, "{}");
    fakes.dispatcher->runUntilIdle();
  }
}

// What an earlier run left goes within a second of the key and app id, with no tracking call:
// the outbox's reports and the kept files. Only a copy that may have reached the service
// before (sent, never answered) counts as a repeat; one answered 503 does not.
TEST_F(OutboxTest, WhatAnEarlierRunLeftGoesWithoutATrackingCall) {
  tracker->trackEvent("kept", std::nullopt);
  fakes.dispatcher->advance(2ms);
  fakes.fail(0, kOutboxRefused);  // into the kept-request folder
  tracker->trackEvent("unanswered", std::nullopt);
  tracker->trackEvent("refused_503", std::nullopt);
  fakes.dispatcher->advance(2ms);
  ASSERT_EQ(sent().size(), 3U);
  fakes.respond(2, 503, "{}");
  fakes.dispatcher->runUntilIdle();
  fakes.dispatcher->clear();  // the kill takes the process's timers (its retry) with it
  const auto next = restart();
  fakes.dispatcher->advance(1s);
  for (const char* event : {"kept", "unanswered", "refused_503"})
    EXPECT_EQ(payloadsOf(event).size(), 2U) << event;
  EXPECT_EQ(tracker->deliveryStats().repeated, 1U);
}

// A kept file's replay is a repeat only when a copy sent before may have reached the service:
// its transfer failed after the connection was made, or its process ended with it on the wire;
// never when no connection was made or secured.
TEST_F(OutboxTest, AKeptFileRepeatsOnlyWhatMayHaveReachedTheService) {
  for (const long code : {-1004L, -1200L, -1001L, -1005L}) {
    tracker->trackEvent("e" + std::to_string(-code), std::nullopt);
    fakes.dispatcher->advance(2ms);
    fakes.fail(sent().size() - 1, Error{platform::kURLErrorDomain, code, "failed"});
    fakes.dispatcher->runUntilIdle();
  }
  ASSERT_EQ(tracker->requestCache()->getCacheSize(), 4U);
  const auto second = restart();
  fakes.dispatcher->advance(1s);  // the first file's replay: its transfer is cut
  ASSERT_EQ(copiesOf("e1004").size(), 2U);
  fakes.fail(copiesOf("e1004")[1], Error{platform::kURLErrorDomain, -1005, "lost"});
  fakes.dispatcher->runUntilIdle();
  ASSERT_EQ(copiesOf("e1200").size(), 2U);  // the next one is on the wire at the kill
  EXPECT_EQ(tracker->deliveryStats().repeated, 0U);
  fakes.dispatcher->clear();
  const auto third = restart();
  tracker->trackEvent("fresh", std::nullopt);
  answerAllFrom(sent().size());
  EXPECT_EQ(copiesOf("e1004").size() + copiesOf("e1200").size(), 6U);
  EXPECT_EQ(copiesOf("e1001").size() + copiesOf("e1005").size(), 4U);
  EXPECT_EQ(tracker->deliveryStats().repeated, 4U);
  EXPECT_EQ(tracker->requestCache()->getCacheSize(), 0U);
}

TEST_F(OutboxTest, BoundsDropTheOldestAndCountThem) {
  tracker->setOutboxLimits(600, std::chrono::hours(1));
  for (int i = 0; i < 20; ++i)
    tracker->trackEvent("e" + std::to_string(i), std::string(100, 'v'));
  fakes.dispatcher->advance(500us);
  const auto stats = tracker->deliveryStats();
  EXPECT_GT(stats.droppedOverSize, 0U);
  EXPECT_EQ(stats.accepted, stats.waiting + stats.droppedOverSize);
  EXPECT_EQ(fakes.systemLog->count("Quorvel outbox is full"), 1U);  // once per episode
  fakes.dispatcher->advance(1ms);
  EXPECT_EQ(sent().size(), stats.waiting);  // the dropped ones never go

  // Unanswered reports older than the age bound are dropped at the next start, and so is a
  // kept-request file.
  tracker->setOutboxLimits(1U << 20U, std::chrono::hours(1));
  for (int i = 0; i < 3; ++i)
    tracker->trackEvent("old", std::nullopt);
  fakes.dispatcher->advance(1ms);
  ASSERT_TRUE(tracker->requestCache()->cacheRequest(
      QuorvelRequestCacheData("https://t.svc.example/old", Bytes{1}, "4.8.0")));
  fakes.clock->advance(std::chrono::hours(2));
  const auto next = restart();
  tracker->setOutboxLimits(1U << 20U, std::chrono::hours(1));
  tracker->trackEvent("late", std::nullopt);
  answerAllFrom(sent().size());
  EXPECT_EQ(tracker->deliveryStats().droppedOverAge, 4U);
  EXPECT_EQ(fakes.systemLog->count("older than 3600 s dropped"), 2U);
  EXPECT_EQ(tracker->requestCache()->getCacheSize(), 0U);
  EXPECT_EQ(payloadsOf("old").size(), 3U);  // none of them went again
}

// A purchase started in a delegate callback runs inside the report whose answer called the
// delegate (the launch's): its own event is still a report of its own, which a kill before its
// answer does not lose.
TEST_F(OutboxTest, APurchaseFromADelegateCallbackIsAReportOfItsOwn) {
  putAReceipt();
  auto delegate = std::make_shared<QuorvelTrackerDelegate>();
  delegate->onConversionDataReceived = [this](const Json&) {
    tracker->validateAndTrackInAppPurchase(std::string("gems"), std::string("1"),
                                           std::string("EUR"), std::string("tx-9"), std::nullopt,
                                           nullptr, nullptr);
  };
  tracker->setDelegate(delegate);
  tracker->trackAppLaunch();
  fakes.dispatcher->advance(250ms);
  ASSERT_EQ(sent().size(), 1U);
  fakes.respond(0, 200, "{}");  // the launch's answer fetches the conversion data
  fakes.dispatcher->advance(10ms);
  ASSERT_EQ(sent().size(), 2U);
  fakes.respond(1, 200, R"({"origin":"paid"})");
  fakes.dispatcher->advance(10ms);
  ASSERT_EQ(copiesOf("qv_purchase").size(), 1U);
  EXPECT_EQ(tracker->deliveryStats().waiting, 1U);

  const auto next = restart();  // killed before the purchase's answer
  const std::size_t before = sent().size();
  tracker->trackEvent("after", std::nullopt);  // the next start sends what was left
  fakes.dispatcher->advance(250ms);
  answerAllFrom(before);
  const auto copies = copiesOf("qv_purchase");
  ASSERT_EQ(copies.size(), 2U);  // the one on the wire at the kill, then its replay
  EXPECT_NE(request(copies[1]).url.find("isCachedRequest=true"), std::string::npos);
  EXPECT_EQ(tracker->deliveryStats().waiting, 0U);
}

// A report on the wire when the user stopped goes once more after the opt-in, counted as one
// repeat: the copies the retry made meanwhile were held back on their way and never left.
TEST_F(OutboxTest, ACopyHeldBackByAStopIsNoRepeat) {
  tracker->trackEvent("on_the_wire", std::nullopt);
  fakes.dispatcher->advance(2ms);
  tracker->setStopped(true);
  fakes.respond(0, 200, "{}");  // too late: ignored
  fakes.dispatcher->advance(5min);
  tracker->setStopped(false);
  fakes.dispatcher->advance(30min);
  EXPECT_EQ(copiesOf("on_the_wire").size(), 2U);
  EXPECT_EQ(tracker->deliveryStats().repeated, 1U);
}

}  // namespace
}  // namespace quorvel
