#include <sys/stat.h>

#include <gtest/gtest.h>

#include "platform/posix/FileSecureStore.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace quorvel::platform {
namespace {

// The same contract holds for the file store and for the test fake.
template <typename Store>
class SecureStoreContract : public ::testing::Test {
 protected:
  void SetUp() override {
    if constexpr (std::is_same_v<Store, FileSecureStore>) {
      store = std::make_unique<FileSecureStore>(dir / "keychain");
    } else {
      store = std::make_unique<Store>();
    }
  }
  test::TempDir dir;
  std::unique_ptr<SecureStore> store;
};

using Stores = ::testing::Types<FileSecureStore, test::MemorySecureStore>;
TYPED_TEST_SUITE(SecureStoreContract, Stores);

TYPED_TEST(SecureStoreContract, AddCopyUpdateDelete) {
  auto& s = *this->store;
  Bytes out;
  EXPECT_EQ(s.copy("com.quorvel.sdk", "KCQuorvelId", out), SecureStatus::itemNotFound);
  EXPECT_EQ(s.update("com.quorvel.sdk", "KCQuorvelId", {'x'}), SecureStatus::itemNotFound);
  EXPECT_EQ(s.add("com.quorvel.sdk", "KCQuorvelId", {'a', 'b'}), SecureStatus::success);
  EXPECT_EQ(s.add("com.quorvel.sdk", "KCQuorvelId", {'c'}), SecureStatus::duplicateItem);
  ASSERT_EQ(s.copy("com.quorvel.sdk", "KCQuorvelId", out), SecureStatus::success);
  EXPECT_EQ(out, (Bytes{'a', 'b'}));
  // Items are keyed by service and account together.
  EXPECT_EQ(s.copy("other.service", "KCQuorvelId", out), SecureStatus::itemNotFound);
  EXPECT_EQ(s.add("com.quorvel.sdk", "KCQuorvelRICounter", {'1'}), SecureStatus::success);
  EXPECT_EQ(s.update("com.quorvel.sdk", "KCQuorvelId", {}), SecureStatus::success);
  ASSERT_EQ(s.copy("com.quorvel.sdk", "KCQuorvelId", out), SecureStatus::success);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(s.remove("com.quorvel.sdk", "KCQuorvelId"), SecureStatus::success);
  EXPECT_EQ(s.remove("com.quorvel.sdk", "KCQuorvelId"), SecureStatus::itemNotFound);
  EXPECT_EQ(s.copy("com.quorvel.sdk", "KCQuorvelRICounter", out), SecureStatus::success);
}

TEST(FileSecureStore, PermissionsAndConcurrentAddsAreExclusive) {
  test::TempDir dir;
  FileSecureStore store(dir / "keychain");
  std::atomic<int> successes{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      if (store.add("svc", "acct", {'x'}) == SecureStatus::success)
        ++successes;
    });
  }
  for (auto& th : threads)
    th.join();
  EXPECT_EQ(successes.load(), 1);
  struct stat st {};
  ASSERT_EQ(::stat((dir / "keychain").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700U);
  ASSERT_EQ(::stat(store.itemPath("svc", "acct").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600U);
  // Hostile names never escape the directory.
  EXPECT_EQ(store.add("../../etc", "/passwd", {'x'}), SecureStatus::success);
  EXPECT_EQ(store.itemPath("../../etc", "/passwd").rfind(dir / "keychain/", 0), 0U);
}

}  // namespace
}  // namespace quorvel::platform
