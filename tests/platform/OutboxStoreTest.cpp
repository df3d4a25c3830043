// The SQLite outbox on a real disk: what a batch wrote survives the SIGKILL of its process
// without a sync, a batch is all or nothing, and a second opener of the same data directory
// is refused until the first one closes.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "platform/posix/SqliteOutboxStore.h"
#include "support/TempDir.h"

namespace quorvel::platform {
namespace {

std::vector<std::pair<std::int64_t, std::string>> contents(OutboxStore& store) {
  std::vector<std::pair<std::int64_t, std::string>> out;
  for (auto& record : store.load(-1, SIZE_MAX))
    out.emplace_back(record.id, std::move(record.content));
  return out;
}

off_t fileSize(const std::string& file) {
  return static_cast<off_t>(std::filesystem::file_size(file));
}

class OutboxStoreTest : public ::testing::Test {
 protected:
  test::TempDir dir;
  std::string file() const { return dir / "Library/QuorvelOutbox.sqlite"; }
};

TEST_F(OutboxStoreTest, ABatchSurvivesTheKillOfItsProcessWithoutASync) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    SqliteOutboxStore store(file());
    std::string reason;
    const bool ok = store.open(reason) && store.apply({{1, "one"}, {2, "two"}, {3, "three"}}) &&
                    store.apply({{2, std::nullopt}, {1, "one, built"}});
    if (ok)
      ::kill(::getpid(), SIGKILL);
    ::_exit(1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the child could not write its batches";

  SqliteOutboxStore store(file());
  std::string reason;
  ASSERT_TRUE(store.open(reason)) << reason;
  using Contents = std::vector<std::pair<std::int64_t, std::string>>;
  EXPECT_EQ(contents(store), (Contents{{1, "one, built"}, {3, "three"}}));
  // Read a page at a time: after a number, at most so many.
  const auto page = store.load(1, 1);
  ASSERT_EQ(page.size(), 1U);
  EXPECT_EQ(page.front().id, 3);
  struct stat info {};
  ASSERT_EQ(::stat(file().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

// Each life is dropped without a sync, as a kill would: what it wrote (to its intake, or to the
// database by a sync halfway) and what it found must all be there for the next.
TEST_F(OutboxStoreTest, LivesThatEndWithoutASyncHandEverythingOn) {
  using Contents = std::vector<std::pair<std::int64_t, std::string>>;
  const struct {
    std::vector<OutboxChange> before, after;  // a sync between them
    Contents expected;
  } lives[] = {
      {{{1, "a"}, {2, "b"}}, {}, {{1, "a"}, {2, "b"}}},
      {{{3, "c"}}, {{1, std::nullopt}, {4, "d"}}, {{2, "b"}, {3, "c"}, {4, "d"}}},
      {{{2, "b2"}}, {{3, std::nullopt}}, {{2, "b2"}, {4, "d"}}},
      {{}, {{5, "e"}, {2, std::nullopt}}, {{4, "d"}, {5, "e"}}},
  };
  // Each life numbers its own records from its floor, known before the last one's intake was
  // read: above every number an earlier life used, synced or not.
  std::int64_t lastUsed = 5;
  for (const auto& life : lives) {
    SqliteOutboxStore store(file());
    std::string reason;
    ASSERT_TRUE(store.open(reason)) << reason;
    const std::int64_t floor = store.idFloor();
    EXPECT_GT(floor, lastUsed);
    ASSERT_TRUE(store.apply(life.before));
    ASSERT_TRUE(store.sync());
    ASSERT_TRUE(store.apply(life.after));
    EXPECT_EQ(contents(store), life.expected);
    ASSERT_TRUE(store.apply({{floor + 7, "own"}}));
    ASSERT_TRUE(store.apply({{floor + 7, std::nullopt}}));
    lastUsed = floor + 7;
  }
  SqliteOutboxStore last(file());
  std::string reason;
  ASSERT_TRUE(last.open(reason)) << reason;
  EXPECT_GT(last.idFloor(), lastUsed);
  EXPECT_EQ(contents(last), lives[3].expected);
  // A page whose every record has a removal waiting in the intake reads on past it.
  ASSERT_TRUE(last.apply({{4, std::nullopt}}));
  const auto page = last.load(-1, 1);
  ASSERT_EQ(page.size(), 1U);
  EXPECT_EQ(page.front().id, 5);
  // The highest number counts removals waiting in the intake, over the database's records.
  EXPECT_EQ(last.highestId(), 5);
  ASSERT_TRUE(last.sync());
  ASSERT_TRUE(last.apply({{5, std::nullopt}}));
  EXPECT_EQ(last.highestId(), -1);
}

// A power cut can leave an intake file cut short or with garbage at its end: the batches before
// the damage count, the damaged one and any after it do not, and nothing else breaks.
TEST_F(OutboxStoreTest, ADamagedIntakeKeepsTheBatchesBeforeTheDamage) {
  using Contents = std::vector<std::pair<std::int64_t, std::string>>;
  const struct {
    const char* damage;
    std::function<void(const std::string&)> apply;
    Contents expected;
  } cases[] = {
      {"none", [](const std::string&) {}, {{1, "one"}, {2, "two"}, {3, "three"}}},
      {"cut short",
       [](const std::string& f) { ::truncate(f.c_str(), fileSize(f) - 3); },
       {{1, "one"}}},  // a batch is all or nothing
      {"a byte of the second batch changed",
       [](const std::string& f) {
         std::fstream io(f, std::ios::in | std::ios::out | std::ios::binary);
         io.seekp(fileSize(f) - 20);
         io.put('#');
       },
       {{1, "one"}}},
      {"garbage after the last batch",
       [](const std::string& f) { std::ofstream(f, std::ios::app) << "garbage of a power cut"; },
       {{1, "one"}, {2, "two"}, {3, "three"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.damage);
    std::string reason;
    {
      SqliteOutboxStore store(file());
      ASSERT_TRUE(store.open(reason)) << reason;
      ASSERT_TRUE(store.apply({{1, "one"}}));
      ASSERT_TRUE(store.apply({{2, "two"}, {3, "three"}}));
    }
    c.apply(file() + ".intake-1");
    {
      SqliteOutboxStore store(file());
      ASSERT_TRUE(store.open(reason)) << reason;
      EXPECT_EQ(contents(store), c.expected);
      EXPECT_TRUE(store.sync());
      EXPECT_TRUE(store.destroy());
    }
  }
}

TEST_F(OutboxStoreTest, ASecondOpenerIsRefusedUntilTheFirstCloses) {
  auto first = std::make_unique<SqliteOutboxStore>(file());
  std::string reason;
  ASSERT_TRUE(first->open(reason)) << reason;
  ASSERT_TRUE(first->apply({{7, "mine"}}));
  {
    SqliteOutboxStore second(file());
    EXPECT_FALSE(second.open(reason));
    EXPECT_NE(reason.find("another process uses the data directory"), std::string::npos) << reason;
  }
  EXPECT_EQ(contents(*first).size(), 1U);  // the refused opener touched nothing
  EXPECT_TRUE(first->sync());
  first.reset();
  SqliteOutboxStore third(file());
  ASSERT_TRUE(third.open(reason)) << reason;
  EXPECT_EQ(contents(third).size(), 1U);
}

// The marks of counters not kept: the launch's and the count of starts never stand without the
// counters' one, and a store removed takes them all with it.
TEST_F(OutboxStoreTest, TheUnkeptCounterMarksGoTogether) {
  SqliteOutboxStore store(file());
  std::string reason;
  ASSERT_TRUE(store.open(reason)) << reason;
  for (const bool destroy : {false, true}) {
    ASSERT_TRUE(store.markCountersUnkept(true));
    ASSERT_TRUE(store.markLaunchUnsent(true));
    ASSERT_TRUE(store.markUnkeptStarts(3) && store.markUnkeptStarts(70));
    EXPECT_TRUE(store.countersUnkept() && store.launchUnsent() && store.unkeptStarts() == 70);
    EXPECT_TRUE(destroy ? store.destroy() : store.markCountersUnkept(false));
    EXPECT_FALSE(store.countersUnkept() || store.launchUnsent() || store.unkeptStarts() != 0);
    ASSERT_TRUE(store.open(reason)) << reason;
  }
  // A folder emptied under the store takes the marks along: the next write makes them again.
  ASSERT_TRUE(store.markUnkeptStarts(2) && store.markLaunchUnsent(true));
  std::filesystem::remove_all(std::filesystem::path(file()).parent_path());
  ASSERT_TRUE(store.apply({{1, "after"}}));
  EXPECT_TRUE(store.countersUnkept() && store.launchUnsent() && store.unkeptStarts() == 2);
}

TEST_F(OutboxStoreTest, AStoreThatCannotBeOpenedSaysWhy) {
  { std::ofstream notAFolder(dir / "Library"); }
  SqliteOutboxStore store(file());
  std::string reason;
  EXPECT_FALSE(store.open(reason));
  EXPECT_NE(reason.find("cannot open"), std::string::npos) << reason;
  EXPECT_FALSE(store.apply({{1, "x"}}));
  EXPECT_TRUE(contents(store).empty());
  EXPECT_EQ(store.highestId(), -1);
}

}  // namespace
}  // namespace quorvel::platform
