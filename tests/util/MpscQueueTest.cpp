// The intake queue under racing producers: every push comes out exactly once, in each
// producer's order while the ring has room, and a full ring loses nothing.
#include <algorithm>
#include <atomic>
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

}  // namespace
}  // namespace quorvel
