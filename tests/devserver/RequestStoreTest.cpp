// The emulator's request store under many connections at once: every sender returns, what
// was answered reads back at once, and a stop loses nothing queued.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "RequestStore.h"
#include "support/TempDir.h"

namespace quorvel::devserver {
namespace {

// Many short rounds: a sender left waiting when the others are done shows as a hang at the
// end of a round. A sender that got its answer reads its request back at once, and a stop
// that follows the last request without a read in between still writes it.
TEST(RequestStoreTest, EveryAnsweredRequestIsReadBackAndOutlivesAStop) {
  const test::TempDir dir;
  const std::string path = dir / "requests.sqlite";
  constexpr int kRounds = 60;
  constexpr int kSenders = 6;
  constexpr int kEach = 4;  // 1,440 requests of 4 KB: past the log's checkpoint threshold
  std::atomic<long long> returned{0};
  std::atomic<int> unseen{0};
  {
    RequestStore store(path);
    for (int round = 0; round < kRounds; ++round) {
      std::vector<std::thread> senders;
      for (int t = 0; t < kSenders; ++t) {
        senders.emplace_back([&, t] {
          for (int i = 0; i < kEach; ++i) {
            const long long before = returned.load();
            StoredRequest r;
            r.service = "events";
            r.body = std::string(4096, static_cast<char>('a' + t));
            store.add(std::move(r));
            ++returned;
            // Rows are numbered in commit order and never deleted: the newest number is the
            // count of rows written.
            const auto newest = store.newerThan(0, 1);
            if (newest.empty() || newest.front().id < before + 1)
              ++unseen;
          }
        });
      }
      for (auto& s : senders)
        s.join();
    }
    EXPECT_EQ(unseen.load(), 0);
    for (int i = 0; i < kSenders; ++i) {
      StoredRequest r;
      r.service = "events";
      store.add(std::move(r));
    }
  }
  EXPECT_EQ(RequestStore(path).all().size(),
            static_cast<std::size_t>(kRounds * kSenders * kEach + kSenders));
}

}  // namespace
}  // namespace quorvel::devserver
