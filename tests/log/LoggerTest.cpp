#include <quorvel/Logger.h>
#include <quorvel/RemoteDebugging.h>

#include <gtest/gtest.h>

#include "log/Log.h"
#include "support/TestPlatform.h"

namespace quorvel {
namespace {

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakes.install();
    QVSetSessionStartDate(fakes.clock->now());
    // Remote collection is tested on its own; keep it out of these lines.
    QuorvelProxyManager::sharedManager().stopRemoteDebugging();
    QuorvelProxyManager::sharedManager().clearData();
  }
  test::TestPlatform fakes;
};

TEST_F(LoggerTest, SwitchesGateOutput) {
  struct Case {
    bool debug;
    bool trace;
    int level;
    bool printed;
  };
  const Case cases[] = {
      {false, false, 1, false}, {false, true, 1, false}, {false, true, 5, false},
      {true, false, 1, true},   {true, false, 4, true},  {true, true, 5, true},
  };
  for (const auto& c : cases) {
    fakes.systemLog->clear();
    QVSetShowDebugLogs(c.debug);
    QVSetShowDebugLogsTrace(c.trace);
    QVLogLocal(c.level, "-[T m]", "message %d", 1);
    EXPECT_EQ(fakes.systemLog->lines().size(), c.printed ? 1U : 0U)
        << "debug=" << c.debug << " trace=" << c.trace << " level=" << c.level;
  }
}

TEST_F(LoggerTest, PlainAndTraceLineFormats) {
  QVSetShowDebugLogs(true);
  QVLogLocal(QVLogLevel::warning, "-[QuorvelTracker x]", "value %@", "v");
  fakes.clock->advance(std::chrono::milliseconds(3'723'004));
  QVSetShowDebugLogsTrace(true);
  QVLogLocal(4, "+[QuorvelUtils y:]", "n=%d", 5);
  const auto lines = fakes.systemLog->lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], "[WARN]  Quorvel: -[QuorvelTracker x] value v");
  EXPECT_EQ(lines[1], "(01:02:03:004) Quorvel: [DEBUG] +[QuorvelUtils y:] n=5");
}

TEST_F(LoggerTest, ElapsedTimeText) {
  const std::pair<std::int64_t, const char*> cases[] = {
      {0, "00:00:00:000"},
      {999, "00:00:00:999"},
      {59'999, "00:00:59:999"},
      {600'000, "00:10:00:000"},
      {3'723'004, "01:02:03:004"},
      {36'000'000, "10:00:00:000"},
      {360'000'000, "100:00:00:000"},
      {-1, "--:--:--:---"},
  };
  for (const auto& [ms, text] : cases)
    EXPECT_EQ(timeToStringForMilliseconds(ms), text) << ms;
  // A missing or future session start prints dashes.
  QVSetSessionStartDate(std::nullopt);
  EXPECT_EQ(timeToString(), "--:--:--:---");
  QVSetSessionStartDate(fakes.clock->now() + std::chrono::seconds(5));
  EXPECT_EQ(timeToString(), "--:--:--:---");
  QVSetSessionStartDate(fakes.clock->now() - std::chrono::milliseconds(1500));
  EXPECT_EQ(timeToString(), "00:00:01:500");
}

TEST_F(LoggerTest, MirroredToTheRemoteBufferWhateverTheConsoleSwitchTracesTwice) {
  auto& proxy = QuorvelProxyManager::sharedManager();
  proxy.startRemoteDebugging();
  proxy.clearData();
  qvLog(kLogDebug, "-[T m]", "hello %@", "world");
  // Printed only with the trace switch on, but recorded at trace and debug level anyway.
  QVSetShowDebugLogs(true);
  qvTrace("-[T m]", "dump %d", 7);
  EXPECT_TRUE(fakes.systemLog->lines().empty());
  const auto events = proxy.events();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_NE(events[0].find("(00:00:00:000) [DEBUG] -[T m]: hello world"), std::string::npos);
  EXPECT_NE(events[1].find("[TRACE] -[T m]: dump 7"), std::string::npos);
  EXPECT_NE(events[2].find("[DEBUG] -[T m]: dump 7"), std::string::npos);
  QVSetShowDebugLogsTrace(true);
  qvTrace("-[T m]", "dump %d", 8);
  EXPECT_EQ(fakes.systemLog->count("[TRACE] -[T m] dump 8"), 1U);
}

}  // namespace
}  // namespace quorvel
