#include <quorvel/RunLoopQueue.h>

#include <future>

#include <gtest/gtest.h>

#include "platform/posix/LaneQueue.h"
#include "platform/posix/PosixServices.h"
#include "platform/posix/ThreadQueue.h"
#include "support/VirtualTime.h"

namespace quorvel::platform {
namespace {

using namespace std::chrono_literals;

TEST(VirtualDispatcher, DelayedWorkRunsInDueOrderAsTimeAdvances) {
  auto clock = std::make_shared<test::VirtualClock>();
  test::VirtualDispatcher dispatcher(clock);
  auto serial = dispatcher.makeSerialQueue("com.quorvel.serial");
  std::vector<std::string> order;
  serial->asyncAfter(250ms, [&] { order.emplace_back("launch"); });
  dispatcher.mainQueue()->asyncAfter(1ms, [&] { order.emplace_back("event"); });
  serial->asyncAfter(100ms, [&] { order.emplace_back("values"); });
  serial->async([&] {
    order.emplace_back(serial->isCurrent() && !dispatcher.mainQueue()->isCurrent() ? "now" : "?");
    serial->asyncAfter(0ms, [&] { order.emplace_back("queued-by-work"); });
  });
  EXPECT_EQ(dispatcher.runUntilIdle(), 2U);
  EXPECT_EQ(order, (std::vector<std::string>{"now", "queued-by-work"}));
  const auto start = clock->now();
  EXPECT_EQ(dispatcher.advance(249ms), 2U);
  EXPECT_EQ(order.back(), "values");
  EXPECT_EQ(dispatcher.pendingCount(), 1U);
  dispatcher.advance(1ms);
  EXPECT_EQ(order.back(), "launch");
  EXPECT_EQ(clock->now() - start, 250ms);
  EXPECT_EQ(dispatcher.ranOn().back(), "com.quorvel.serial");
  EXPECT_FALSE(serial->isCurrent());
}

// A serial queue of its own thread, and lanes sharing a two-thread pool with another busy
// lane: either way one item at a time, in order, and isCurrent only inside.
class SerialQueues : public ::testing::TestWithParam<bool> {};

TEST_P(SerialQueues, RunOneItemAtATimeInOrder) {
  const bool lanes = GetParam();
  auto pool = std::make_shared<ThreadQueue>("pool", 2, "", 50ms);
  std::shared_ptr<DispatchQueue> queue =
      lanes ? std::shared_ptr<DispatchQueue>(std::make_shared<LaneQueue>("a", pool))
            : std::make_shared<ThreadQueue>("com.quorvel.serial", 1, "quorvel.serial");
  auto neighbour = std::make_shared<LaneQueue>("b", pool);
  std::vector<int> seen;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::promise<void> done;
  std::promise<void> neighbourDone;  // its items read this frame too: wait for them all
  for (int i = 0; i < 500; ++i) {
    neighbour->async([&, i] {
      overlapped = overlapped || queue->isCurrent();
      if (i == 499)
        neighbourDone.set_value();
    });
    queue->async([&, i] {
      if (running.fetch_add(1) != 0 || !queue->isCurrent())
        overlapped = true;
      seen.push_back(i);
      running.fetch_sub(1);
      if (i == 499)
        done.set_value();
    });
  }
  ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
  ASSERT_EQ(neighbourDone.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(queue->isCurrent());
  ASSERT_EQ(seen.size(), 500U);
  for (int i = 0; i < 500; ++i)
    EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);
  EXPECT_LE(pool->threadCount(), 2U);
}

INSTANTIATE_TEST_SUITE_P(OwnThreadOrLane, SerialQueues, ::testing::Bool());

// A pool whose threads end as soon as it is empty still runs what comes next; a lane that
// goes away drops what it has not started.
TEST(LaneQueue, PoolThreadsEndWhenIdleAndADroppedLaneRunsNothingMore) {
  auto pool = std::make_shared<ThreadQueue>("pool", 2, "", 0ms);
  {
    LaneQueue lane("a", pool);
    std::promise<void> ran;
    lane.async([&] { ran.set_value(); });
    ASSERT_EQ(ran.get_future().wait_for(10s), std::future_status::ready);
    lane.asyncAfter(1h, [] { ADD_FAILURE() << "pending work must be dropped"; });
  }
  std::promise<void> again;
  pool->async([&] { again.set_value(); });
  EXPECT_EQ(again.get_future().wait_for(10s), std::future_status::ready);
}

// A delayed item waits behind later immediate ones; work that throws stops neither its thread
// (the only one) nor the queue; destruction drops what is pending.
TEST(ThreadQueue, DelayedItemsWaitThrowingWorkIsSurvivedAndDestructionDropsPending) {
  std::vector<std::string> order;
  std::promise<void> done;
  {
    ThreadQueue queue("q", 1);
    queue.asyncAfter(200ms, [&] {
      order.emplace_back("delayed");
      done.set_value();
    });
    queue.async([] { throw std::runtime_error("boom"); });
    queue.async([&] { order.emplace_back("immediate"); });
    ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
    queue.asyncAfter(1h, [] { ADD_FAILURE() << "pending work must be dropped"; });
  }
  EXPECT_EQ(order, (std::vector<std::string>{"immediate", "delayed"}));
}

TEST(RunLoopQueue, HostDrainsOnItsOwnThread) {
  std::atomic<int> wakeUps{0};
  RunLoopQueue queue("main", [&] { ++wakeUps; });
  std::vector<int> order;
  std::thread producer([&] {
    for (int i = 0; i < 3; ++i)
      queue.async([&order, i] { order.push_back(i); });
  });
  producer.join();
  queue.asyncAfter(1h, [&] { order.push_back(99); });
  EXPECT_EQ(wakeUps.load(), 4);
  EXPECT_EQ(queue.drain(), 3U);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  ASSERT_TRUE(queue.timeUntilNextItem());
  EXPECT_GT(*queue.timeUntilNextItem(), 59min);
}

// Only the thread that turns a queue may run its items early: never a second thread beside it.
TEST(DispatchQueues, RunDueItemsHereOnlyOnTheThreadThatTurnsTheQueue) {
  ThreadQueue serial("q", 1);
  RunLoopQueue loop("main");
  LaneQueue lane("lane", std::make_shared<ThreadQueue>("pool", 2));
  for (DispatchQueue* queue : std::initializer_list<DispatchQueue*>{&serial, &loop, &lane}) {
    SCOPED_TRACE(queue->label());
    std::promise<void> entered;
    std::promise<void> release;
    std::promise<std::size_t> ranInside;
    std::atomic<int> later{0};
    queue->async([&] {
      entered.set_value();
      release.get_future().wait();
      ranInside.set_value(queue->runDueItemsHere());
    });
    std::thread turner;
    if (queue == &loop)
      turner = std::thread([&] { loop.drain(); });
    entered.get_future().wait();
    queue->async([&] { ++later; });
    EXPECT_EQ(queue->runDueItemsHere(), 0U);  // another thread turns it at this moment
    EXPECT_EQ(later.load(), 0);
    release.set_value();
    EXPECT_EQ(ranInside.get_future().get(), 1U);
    if (turner.joinable())
      turner.join();
    EXPECT_EQ(later.load(), 1);
  }
}

}  // namespace
}  // namespace quorvel::platform
