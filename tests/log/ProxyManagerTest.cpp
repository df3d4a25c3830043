#include <quorvel/RemoteDebugging.h>

#include <gtest/gtest.h>

#include "log/QuorvelProxyManager.h"
#include "support/TestPlatform.h"
#include "util/Utf8.h"

namespace quorvel {
namespace {

class ProxyManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { proxy.startRemoteDebugging(); }
  test::TestPlatform fakes;
  QuorvelProxyManager proxy{fakes.clock};
};

// A line built from raw bytes must not make the whole upload unserialisable.
TEST_F(ProxyManagerTest, LinesWithRawBytesStaySerialisable) {
  const std::string key =
      "\xE4~\x80"
      "0\xFF";
  proxy.addEventWithString("key: " + bytesAsText(key));
  proxy.addEventWithString("raw: " + key);
  ASSERT_EQ(proxy.events().size(), 2U);
  // Local time, one blank, the line; the clock's zone is UTC here.
  EXPECT_EQ(proxy.events()[0], "2023-11-14 22:13:20 key: \u00E4~\u00800\u00FF");
  EXPECT_EQ(proxy.events()[1], "2023-11-14 22:13:20 raw: \uFFFD~\uFFFD0\uFFFD");
  EXPECT_TRUE(proxy.getJSONString().has_value());
}

TEST_F(ProxyManagerTest, SizeLimitIsCheckedBeforeAdding) {
  // Fill to 98,300 bytes: each stored line is the 19-character time, a blank and the text.
  const std::string prefixOnly(20, 'x');
  std::int32_t total = 0;
  while (total + 1000 <= 98'300 - 1000) {
    proxy.addEventWithString(std::string(1000 - 20, 'a'));
    total += 1000;
  }
  proxy.addEventWithString(std::string(98'300 - total - 20, 'b'));
  ASSERT_EQ(proxy.requestSize(), 98'300);
  proxy.addEventWithString(std::string(180, 'c'));  // 200 bytes stored: accepted, now over
  EXPECT_EQ(proxy.requestSize(), 98'500);
  const auto count = proxy.events().size();
  proxy.addEventWithString("refused");
  EXPECT_EQ(proxy.events().size(), count);
}

}  // namespace
}  // namespace quorvel
