// kill -9 in the middle of a stream of launches and events, on the real files: every file
// is left whole, and no launch that left the process is ever counted again by the next start.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

#include "cache/QuorvelRequestCache.h"
#include "platform/posix/JsonFilePreferencesStore.h"
#include "support/Decrypt.h"
#include "support/TempDir.h"
#include "tracker/PreferenceKeys.h"

namespace quorvel {
namespace {

constexpr const char* kKey = "CRASH-SAFETY-KEY";

class QuietLog final : public platform::SystemLog {
 public:
  void write(std::string_view) noexcept override {}
};

Platform platformIn(const test::TempDir& dir) {
  PosixPlatformOptions options;
  options.bundleIdentifier = "com.quorvel.crash";
  options.dataDirectory = dir / "app";
  options.keychainDirectory = dir / "keychain";
  Platform p = makePosixPlatform(options);
  p.systemLog = std::make_shared<QuietLog>();
  return p;
}

// Sends launches and events to a closed port (each is cached) until killed; one byte on
// `progress` after every round.
[[noreturn]] void streamUntilKilled(const test::TempDir& dir, int progress) {
  QuorvelTracker tracker(std::make_shared<const Platform>(platformIn(dir)));
  tracker.setQuorvelDevKey(std::string(kKey));
  tracker.setAppleAppID(std::string("123456789"));
  tracker.setHost(std::string("localhost:1"));
  tracker.setMinTimeBetweenSessions(0);
  tracker.setDisableIAdTracking(true);
  for (;;) {
    tracker.sendLaunchToServer();
    for (int i = 0; i < 3; ++i)
      tracker.trackEvent("crash_event", std::nullopt);
    const char byte = 1;
    if (::write(progress, &byte, 1) != 1)
      _exit(3);
  }
}

TEST(CrashSafety, KillAtAnyMomentLeavesFilesWholeAndNeverRecountsALaunch) {
  test::TempDir dir;
  for (const int rounds : {1, 3, 7, 12}) {
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::close(pipeEnds[0]);
      streamUntilKilled(dir, pipeEnds[1]);
    }
    ::close(pipeEnds[1]);
    char byte = 0;
    for (int i = 0; i < rounds; ++i)
      ASSERT_EQ(::read(pipeEnds[0], &byte, 1), 1);
    ::kill(child, SIGKILL);  // while the child is in its next round
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(pipeEnds[0]);

    platform::JsonFilePreferencesStore preferences(
        dir / "app/Library/Preferences/com.quorvel.crash.json");
    const std::int64_t counter = preferences.integerForKey(keys::kCounter);
    ASSERT_GE(counter, rounds);
    QuorvelRequestCache cache(std::make_shared<const Platform>(platformIn(dir)), nullptr);
    for (const auto& request : cache.getCachedRequests()) {
      const auto payload = test::decryptPayload(kKey, request.postData().value_or(Bytes()));
      ASSERT_TRUE(payload.is_object()) << request.cacheKey().value_or("");
      if (payload["event"] == "Launched")
        EXPECT_LE(std::stoll(payload["counter"].get<std::string>()), counter);
    }
  }
}

}  // namespace
}  // namespace quorvel
