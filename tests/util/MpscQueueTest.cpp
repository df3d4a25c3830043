// The intake queue under racing producers: every push comes out exactly once, in each
// producer's order while the ring has room, and a full ring loses nothing.
#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "util/MpscQueue.h"

namespace quorvel {
namespace {

struct Pushed {
  int producer;
  int index;
};

struct Case {
  const char* name;
  std::size_t capacity;
  bool ordered;  // a ring that never fills keeps each producer's order
};

class MpscQueueRace : public ::testing::TestWithParam<Case> {};

TEST_P(MpscQueueRace, EveryPushComesOutOnce) {
  constexpr int kProducers = 4;
  constexpr int kEach = 20'000;
  MpscQueue<Pushed> queue(GetParam().capacity);
  std::atomic<int> done{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kEach; ++i)
        queue.push({p, i});
      ++done;
    });
  }
  std::vector<std::vector<int>> seen(kProducers);
  for (;;) {
    const bool allDone = done.load() == kProducers;
    while (auto item = queue.pop())
      seen[static_cast<std::size_t>(item->producer)].push_back(item->index);
    if (allDone && queue.empty())
      break;
  }
  for (auto& t : producers)
    t.join();
  for (auto& indexes : seen) {
    ASSERT_EQ(indexes.size(), static_cast<std::size_t>(kEach));
    if (GetParam().ordered) {
      for (int i = 0; i < kEach; ++i)
        ASSERT_EQ(indexes[static_cast<std::size_t>(i)], i);
    } else {
      std::sort(indexes.begin(), indexes.end());
      EXPECT_EQ(std::adjacent_find(indexes.begin(), indexes.end()), indexes.end());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Capacities, MpscQueueRace,
                         ::testing::Values(Case{"RoomForAll", 1 << 17, true},
                                           Case{"OftenFull", 8, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// Values live in the ring only between a push and its pop: what a queue still holds when it
// goes is destroyed with it, in the ring and in the overflow list alike.
TEST(MpscQueue, ValuesLeftInItAreDestroyedWithIt) {
  const auto held = std::make_shared<int>(0);
  {
    MpscQueue<std::shared_ptr<int>> queue(4);
    for (int i = 0; i < 6; ++i)  // 4 in the ring, 2 in the list
      queue.push(held);
    ASSERT_TRUE(queue.pop());
    EXPECT_EQ(held.use_count(), 6);
  }
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace quorvel
