// The SQLite outbox on a real disk: what a batch wrote survives the SIGKILL of its process
// without a sync, a batch is all or nothing, and a second opener of the same data directory
// is refused until the first one closes.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

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
  EXPECT_EQ(store.highestId(), 3);
  struct stat info {};
  ASSERT_EQ(::stat(file().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
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
