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
    fakes.logSwitches->setSessionStart(fakes.clock->now());
  }
  test::TestPlatform fakes;
  QuorvelProxyManager mirror{fakes.clock};
  // A tracker's logger: its own switches, the fakes' log, a collection of its own.
  Log log{fakes.logSwitches, fakes.clock, fakes.systemLog, &mirror};
};

TEST_F(LoggerTest, SwitchesGateOutputAndAreATrackersOwn) {
  mirror.stopRemoteDebugging();
  struct Case {
    bool debug;
    bool trace;
    bool traceCall;
    bool printed;
  };
  const Case cases[] = {
      {false, false, false, false}, {false, true, false, false}, {false, true, true, false},
      {true, false, false, true},   {true, false, true, false},  {true, true, true, true},
  };
  for (const auto& c : cases) {
    fakes.systemLog->clear();
    fakes.logSwitches->setDebug(c.debug);
    fakes.logSwitches->setTrace(c.trace);
    // The process's switches are another logger's: they never turn this one on.
    QVSetShowDebugLogs(!c.debug);
    QVSetShowDebugLogsTrace(true);
    if (c.traceCall)
      log.trace("-[T m]", "message %d", 1);
    else
      log.log(kLogError, "-[T m]", "message %d", 1);
    EXPECT_EQ(fakes.systemLog->lines().size(), c.printed ? 1U : 0U)
        << "debug=" << c.debug << " trace=" << c.trace << " traceCall=" << c.traceCall;
  }
}

TEST_F(LoggerTest, PlainAndTraceLineFormatsOfATrackerAndOfTheProcess) {
  fakes.logSwitches->setDebug(true);
  log.log(kLogWarning, "-[QuorvelTracker x]", "value %@", "v");
  fakes.clock->advance(std::chrono::milliseconds(3'723'004));
  fakes.logSwitches->setTrace(true);
  log.log(4, "+[QuorvelUtils y:]", "n=%d", 5);
  // The exported function writes the same lines through the installed platform.
  QVSetShowDebugLogs(true);
  QVSetShowDebugLogsTrace(false);
  QVLogLocal(QVLogLevel::warning, "-[QuorvelTracker x]", "value %@", "v");
  QVSetShowDebugLogsTrace(true);
  QVLogLocal(4, "+[QuorvelUtils y:]", "n=%d", 5);
  const auto lines = fakes.systemLog->lines();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], "[WARN]  Quorvel: -[QuorvelTracker x] value v");
  EXPECT_EQ(lines[1], "(01:02:03:004) Quorvel: [DEBUG] +[QuorvelUtils y:] n=5");
  EXPECT_EQ(lines[2], lines[0]);
  EXPECT_EQ(lines[3], lines[1]);
}

TEST_F(LoggerTest, ElapsedTimeText) {
  const std::pair<std::int64_t, const char*> cases[] = {
      {0, "00:00:00:000"},       {999, "00:00:00:999"},        {59'999, "00:00:59:999"},
      {600'000, "00:10:00:000"}, {36'000'000, "10:00:00:000"}, {360'000'000, "100:00:00:000"},
      {-1, "--:--:--:---"},
  };
  for (const auto& [ms, text] : cases)
    EXPECT_EQ(timeToStringForMilliseconds(ms), text) << ms;
  QVSetSessionStartDate(std::nullopt);
  EXPECT_EQ(timeToString(), "--:--:--:---");
  QVSetSessionStartDate(fakes.clock->now() + std::chrono::seconds(5));
  EXPECT_EQ(timeToString(), "--:--:--:---");
  QVSetSessionStartDate(fakes.clock->now() - std::chrono::milliseconds(1500));
  EXPECT_EQ(timeToString(), "00:00:01:500");
}

TEST_F(LoggerTest, MirroredToTheRemoteBufferWhateverTheConsoleSwitchTracesTwice) {
  mirror.startRemoteDebugging();
  mirror.clearData();
  log.log(kLogDebug, "-[T m]", "hello %@", "world");
  fakes.logSwitches->setDebug(true);
  log.trace("-[T m]", "dump %d", 7);
  EXPECT_TRUE(fakes.systemLog->lines().empty());
  const auto events = mirror.events();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_NE(events[0].find("(00:00:00:000) [DEBUG] -[T m]: hello world"), std::string::npos);
  EXPECT_NE(events[1].find("[TRACE] -[T m]: dump 7"), std::string::npos);
  EXPECT_NE(events[2].find("[DEBUG] -[T m]: dump 7"), std::string::npos);
  fakes.logSwitches->setTrace(true);
  log.trace("-[T m]", "dump %d", 8);
  EXPECT_EQ(fakes.systemLog->count("[TRACE] -[T m] dump 8"), 1U);
}

}  // namespace
}  // namespace quorvel
