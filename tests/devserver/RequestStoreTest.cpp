// The emulator's request store under many connections at once: every sender returns, and a
// request is in the database file, for any reader, by the time its sender returns.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "RequestStore.h"
#include "support/TempDir.h"

namespace quorvel::devserver {
namespace {

long long rowsSeenBy(sqlite3* reader) {
  sqlite3_stmt* s = nullptr;
  long long count = -1;
  if (sqlite3_prepare_v2(reader, "SELECT count(*) FROM requests", -1, &s, nullptr) == SQLITE_OK &&
      sqlite3_step(s) == SQLITE_ROW)
    count = sqlite3_column_int64(s, 0);
  sqlite3_finalize(s);
  return count;
}

// Many short rounds: a sender left waiting when the others are done shows as a hang at the
// end of a round.
TEST(RequestStoreTest, ConcurrentSendersAllReturnWithTheirRequestsCommitted) {
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
          sqlite3* reader = nullptr;
          sqlite3_open_v2(path.c_str(), &reader, SQLITE_OPEN_READONLY, nullptr);
          sqlite3_busy_timeout(reader, 5000);
          for (int i = 0; i < kEach; ++i) {
            const long long before = returned.load();
            StoredRequest r;
            r.service = "events";
            r.body = std::string(4096, static_cast<char>('a' + t));
            store.add(std::move(r));
            ++returned;
            if (rowsSeenBy(reader) < before + 1)
              ++unseen;
          }
          sqlite3_close(reader);
        });
      }
      for (auto& s : senders)
        s.join();
    }
    EXPECT_EQ(unseen.load(), 0);
    EXPECT_EQ(store.all().size(), static_cast<std::size_t>(kRounds * kSenders * kEach));
  }
  EXPECT_EQ(RequestStore(path).all().size(), static_cast<std::size_t>(kRounds * kSenders * kEach));
}

}  // namespace
}  // namespace quorvel::devserver
