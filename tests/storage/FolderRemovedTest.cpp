// The data directory emptied under the process that holds it (`rm -rf` of the folder): one
// holder at a time still, whether that process locks the folder again first or another process
// takes it first.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/posix/SqliteOutboxStore.h"
#include "support/TempDir.h"

namespace quorvel::platform {
namespace {

struct Case {
  const char* name;
  bool holderSyncsFirst;  // the holder looks before the second store opens
};

class FolderRemoved : public ::testing::TestWithParam<Case> {};

TEST_P(FolderRemoved, OneHolderAtATime) {
  test::TempDir dir;
  const std::string path = dir / "app/outbox.sqlite";
  SqliteOutboxStore first(path);
  std::string reason;
  ASSERT_TRUE(first.open(reason)) << reason;
  ASSERT_TRUE(first.apply({{1, std::string("a")}}));
  std::filesystem::remove_all(dir / "app");

  if (GetParam().holderSyncsFirst)
    first.sync();
  SqliteOutboxStore second(path);
  const bool secondHolds = second.open(reason);
  first.sync();
  const bool firstHolds = first.apply({{2, std::string("b")}});

  EXPECT_NE(firstHolds, secondHolds) << "both hold the folder, or neither does";
  EXPECT_EQ(firstHolds, GetParam().holderSyncsFirst);
  EXPECT_EQ(first.heldByAnotherProcess(), secondHolds);
  EXPECT_EQ(second.heldByAnotherProcess(), firstHolds);
  if (!secondHolds)
    return;
  // The new holder lets go: the first store holds the folder again.
  second.release();
  EXPECT_TRUE(first.open(reason)) << reason;
  EXPECT_TRUE(first.apply({{3, std::string("c")}}));
  EXPECT_FALSE(first.heldByAnotherProcess());
}

INSTANTIATE_TEST_SUITE_P(Storage, FolderRemoved,
                         ::testing::Values(Case{"HolderLocksAgainFirst", true},
                                           Case{"AnotherProcessTakesItFirst", false}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvel::platform
