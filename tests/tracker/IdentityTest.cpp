#include <quorvel/QuorvelTracker.h>

#include <regex>

#include <gtest/gtest.h>

#include "log/QuorvelProxyManager.h"
#include "support/TestPlatform.h"
#include "support/TrackerFixture.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

Bytes bytes(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

class IdentityTest : public test::TrackerFixture {
 protected:
  IdentityTest() : TrackerFixture(false, false) {}
  void SetUp() override {
    TrackerFixture::SetUp();
    // Installed at 1,700,000,000.5 s; the device is 2 hours east of GMT.
    fakes.fileSystem->setDates("/app/Library", platform::TimePoint(1'700'000'000'500ms),
                               std::nullopt);
    fakes.clock->setGMTOffset(7200);
    makeTracker();
  }
  std::optional<std::string> keychainItem(const char* account) {
    Bytes out;
    if (fakes.secureStore->copy(keys::kKeychainService, account, out) !=
        platform::SecureStatus::success) {
      return std::nullopt;
    }
    return std::string(out.begin(), out.end());
  }
};

TEST_F(IdentityTest, IdentifierIsInstallTimePlusOffsetAndARandomNumberOrOnlyTheOffset) {
  const std::pair<std::uint32_t, std::string> cases[] = {
      {0, "1700007200500-1"}, {9'999'998, "1700007200500-9999999"}, {41, "1700007200500-42"}};
  for (const auto& [draw, want] : cases) {
    fakes.random->uniformValues.push_back(draw);
    EXPECT_EQ(tracker->generateQuorvelId(), want);
  }
  // An unreadable install date leaves only the offset.
  fakes.fileSystem->setDates("/app/Library", std::nullopt, std::nullopt);
  fakes.clock->setGMTOffset(-3600);
  const std::string id = tracker->generateQuorvelId();
  EXPECT_TRUE(std::regex_match(id, std::regex(R"(-3600000-[1-9][0-9]{0,6})"))) << id;
  EXPECT_EQ(id.find('.'), std::string::npos);
}

TEST_F(IdentityTest, FreshInstallMakesStoresAndSecuresTheIdentifier) {
  fakes.random->uniformValues.push_back(6);
  tracker->setAppleAppID(std::string("123456"));  // the keychain's service name stays bare
  const std::string uid = tracker->getQuorvelUID();
  EXPECT_EQ(uid, "1700007200500-7");
  EXPECT_EQ(fakes.preferences->stringForKey(keys::kUserId), uid);
  // The keychain write runs on the serial queue.
  EXPECT_FALSE(keychainItem(keys::kKeychainIdItem));
  EXPECT_EQ(fakes.dispatcher->runUntilIdle(), 1U);
  EXPECT_EQ(fakes.dispatcher->ranOn().back(), "com.quorvel.serial");
  EXPECT_EQ(keychainItem(keys::kKeychainIdItem), uid);
  // A second call returns the stored value without touching the keychain.
  EXPECT_EQ(tracker->getQuorvelUID(), uid);
  EXPECT_EQ(fakes.dispatcher->pendingCount(), 0U);
  // An empty stored identifier is replaced.
  fakes.preferences->setString(keys::kUserId, "");
  EXPECT_NE(tracker->getQuorvelUID(), "");
}

TEST_F(IdentityTest, KeychainCopyRaisesTheReinstallCounter) {
  struct Case {
    std::optional<std::string> storedCounter;
    std::int64_t want;
  };
  const Case cases[] = {{std::nullopt, 1}, {"3", 4}, {"garbage", 1}, {"41x", 42}};
  for (const auto& c : cases) {
    test::TestPlatform local;
    local.secureStore->add(keys::kKeychainService, keys::kKeychainIdItem, bytes("1600000000000-5"));
    if (c.storedCounter) {
      local.secureStore->add(keys::kKeychainService, keys::kKeychainReinstallCounterItem,
                             bytes(*c.storedCounter));
    }
    TrackerCore t(local.shared(), QuorvelProxyManager::sharedManager());
    EXPECT_TRUE(t.getKeychainData());
    EXPECT_EQ(local.preferences->stringForKey(keys::kOriginalUserId), "1600000000000-5");
    EXPECT_EQ(local.preferences->integerForKey(keys::kReInstallCounter), c.want);
    Bytes out;
    local.secureStore->copy(keys::kKeychainService, keys::kKeychainReinstallCounterItem, out);
    EXPECT_EQ(std::string(out.begin(), out.end()), std::to_string(c.want));
  }
}

TEST_F(IdentityTest, NoOrUnreadableKeychainCopyMeansNone) {
  EXPECT_FALSE(tracker->getKeychainData());
  fakes.secureStore->add(keys::kKeychainService, keys::kKeychainIdItem, Bytes{0xff, 0xfe});
  EXPECT_FALSE(tracker->getKeychainData());
  EXPECT_FALSE(fakes.preferences->objectForKey(keys::kOriginalUserId));
}

}  // namespace
}  // namespace quorvel
