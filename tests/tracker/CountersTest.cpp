#include <quorvel/QuorvelTracker.h>

#include <gtest/gtest.h>

#include "common/QuorvelUtils.h"
#include "log/QuorvelProxyManager.h"
#include "support/TestPlatform.h"
#include "support/TrackerFixture.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

class CountersTest : public test::TrackerFixture {
 protected:
  CountersTest() : TrackerFixture(false, false) {}
  void SetUp() override {
    TrackerFixture::SetUp();
    fakes.fileSystem->setDates("/app/Library", fakes.clock->now() - 24h, fakes.clock->now() - 24h);
    makeTracker();
    fakes.systemLog->clear();
  }
  QVDateFormatter formatter() const { return QuorvelUtils::getDateFormatter(fakes.clock); }
};

TEST_F(CountersTest, CountersGrowOnlyWhenAsked) {
  struct Step {
    bool launch;
    int counter;
    int inApp;
  };
  const Step steps[] = {{true, 1, 0}, {false, 1, 1}, {false, 1, 2}, {true, 2, 2}, {false, 2, 3}};
  for (const auto& s : steps) {
    EXPECT_EQ(tracker->getCounter(s.launch), s.counter);
    EXPECT_EQ(tracker->getInAppCounter(!s.launch), s.inApp);
  }
  // The session counter counts moves to the background, from 1.
  for (int i = 0; i < 3; ++i)
    tracker->incrementRealLaunchCounter();
  EXPECT_EQ(tracker->getRealLaunchCounter(), 4);
}

TEST_F(CountersTest, FirstLaunchDateOfAnOlderInstallStaysEmpty) {
  fakes.preferences->setInteger(keys::kCounter, 2);
  EXPECT_EQ(tracker->getFirstLanuchDate(formatter()), "");
  fakes.clock->advance(48h);
  EXPECT_EQ(tracker->getFirstLanuchDate(formatter()), "");
  EXPECT_EQ(fakes.preferences->durable()[keys::kFirstLaunchDate], Json(""));
}

TEST_F(CountersTest, InstallDateIsTheLibraryDirectorysCreationStoredOnce) {
  const auto date = tracker->getInstallDate(formatter());
  EXPECT_EQ(date, "2023-11-13_221320+0000");
  EXPECT_EQ(fakes.preferences->objectForKey(keys::kInstallDate), Json(*date));
  // Stored once: a later change of the directory does not move it.
  fakes.fileSystem->setDates("/app/Library", fakes.clock->now(), fakes.clock->now());
  EXPECT_EQ(tracker->getInstallDate(formatter()), date);
  EXPECT_EQ(tracker->installDate(), fakes.clock->now());
  // An unreadable date stores nothing.
  fakes.preferences->removeObjectForKey(keys::kInstallDate);
  fakes.fileSystem->setDates("/app/Library", std::nullopt, std::nullopt);
  EXPECT_EQ(tracker->getInstallDate(formatter()), std::nullopt);
  EXPECT_FALSE(fakes.preferences->objectForKey(keys::kInstallDate));
}

TEST_F(CountersTest, VersionChangesMoveDate3AndResetRetries) {
  struct Case {
    std::string version;
    std::string date;
    std::string want;
    bool keychainWrite;
  };
  const Case cases[] = {
      {"7", "d1", "d1", false},  // first sight: no keychain step
      {"7", "d2", "d1", false},  // same version: stored date, nothing written
      {"8", "d3", "d3", true},   // update
      {"8", "d4", "d3", false},
  };
  for (const auto& c : cases) {
    fakes.preferences->setInteger(keys::kConversionDataRequestRetries, 3);
    const auto before = fakes.secureStore->size();
    EXPECT_EQ(tracker->getVersionUpdateDate(c.version, c.date), c.want);
    fakes.dispatcher->runUntilIdle();
    EXPECT_EQ(fakes.preferences->objectForKey(keys::kDate3), Json(c.want));
    const bool reset = !fakes.preferences->objectForKey(keys::kConversionDataRequestRetries);
    EXPECT_EQ(reset, c.want == c.date) << c.version << " " << c.date;
    EXPECT_EQ(fakes.secureStore->size() > before, c.keychainWrite) << c.version << " " << c.date;
  }
}

TEST_F(CountersTest, TimeSinceLastLaunchSpansRestarts) {
  EXPECT_EQ(tracker->getTimePassedSinceLastLaunch(), -1);
  fakes.dispatcher->advance(90s);  // the group commit writes it within 100 ms
  EXPECT_TRUE(fakes.preferences->durable().contains(keys::kTimePassedSincePrevLaunch));
  makeTracker();
  EXPECT_DOUBLE_EQ(tracker->getTimePassedSinceLastLaunch(), 90.0);
}

TEST_F(CountersTest, CorruptStoredValuesFallBack) {
  fakes.preferences->setObject(keys::kCounter, Json{{"not", "a number"}});
  fakes.preferences->setObject(keys::kTimePassedSincePrevLaunch, "garbage");
  fakes.preferences->setObject(keys::kRealLaunchCounter, Json::array());
  EXPECT_EQ(tracker->getCounter(true), 1);
  EXPECT_EQ(tracker->getTimePassedSinceLastLaunch(), -1);
  EXPECT_EQ(tracker->getRealLaunchCounter(), 1);
}

TEST_F(CountersTest, WifiMeansEn0WithANonLoopbackIPv4Address) {
  using platform::InterfaceAddress;
  using Family = InterfaceAddress::Family;
  struct Case {
    std::optional<std::vector<InterfaceAddress>> list;
    bool want;
  };
  const Case cases[] = {
      {std::nullopt, false},
      {std::vector<InterfaceAddress>{}, false},
      {std::vector<InterfaceAddress>{{"en0", Family::ipv4, "192.0.2.4", true, false}}, true},
      {std::vector<InterfaceAddress>{{"en0", Family::ipv6, "fe80::1", true, false}}, false},
      {std::vector<InterfaceAddress>{{"eth0", Family::ipv4, "192.0.2.4", true, false}}, false},
      {std::vector<InterfaceAddress>{{"en0", Family::ipv4, "127.0.0.1", true, true}}, false},
  };
  for (const auto& c : cases) {
    fakes.networkInterfaces->list = c.list;
    EXPECT_EQ(tracker->isWifiAvailable(), c.want);
  }
}

}  // namespace
}  // namespace quorvel
