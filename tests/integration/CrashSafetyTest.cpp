// kill -9 in the middle of a stream of launches and events, on the real files: every file
// is left whole, and no launch that left the process is ever counted again by the next start.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

#include "cache/QuorvelRequestCache.h"
#include "log/Log.h"
#include "log/QuorvelProxyManager.h"
#include "platform/posix/JsonFilePreferencesStore.h"
#include "support/Decrypt.h"
#include "support/TempDir.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

constexpr const char* kCrashKey = "CRASH-SAFETY-KEY";

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
  TrackerCore tracker(std::make_shared<const Platform>(platformIn(dir)),
                      QuorvelProxyManager::sharedManager());
  tracker.setQuorvelDevKey(std::string(kCrashKey));
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

// Kills a streaming child after `rounds` rounds and checks what it left. Runs in a process
// of its own, so that the test's process never forks once it has threads.
[[noreturn]] void killAndCheck(const test::TempDir& dir, int rounds) {
  int pipeEnds[2];
  if (::pipe(pipeEnds) != 0)
    _exit(10);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(pipeEnds[0]);
    streamUntilKilled(dir, pipeEnds[1]);
  }
  ::close(pipeEnds[1]);
  char byte = 0;
  for (int i = 0; i < rounds; ++i) {
    if (::read(pipeEnds[0], &byte, 1) != 1)
      _exit(11);
  }
  ::kill(child, SIGKILL);  // while the child is in its next round
  ::waitpid(child, nullptr, 0);

  platform::JsonFilePreferencesStore preferences(dir /
                                                 "app/Library/Preferences/com.quorvel.crash.json");
  const std::int64_t counter = preferences.integerForKey(keys::kCounter);
  if (counter < rounds)
    _exit(12);  // unreadable, or launches that left were not counted
  QuorvelRequestCache cache(std::make_shared<const Platform>(platformIn(dir)), Log::silent(),
                            nullptr);
  for (const auto& request : cache.getCachedRequests()) {
    const auto payload = test::decryptPayload(kCrashKey, request.postData().value_or(Bytes()));
    if (!payload.is_object())
      _exit(13);  // a cache file that is not whole
    if (payload["event"] == "Launched" &&
        std::stoll(payload["counter"].get<std::string>()) > counter)
      _exit(14);  // a launch that left would be counted again by the next start
  }
  _exit(0);
}

TEST(CrashSafety, KillAtAnyMomentLeavesFilesWholeAndNeverRecountsALaunch) {
  test::TempDir dir;
  for (const int rounds : {1, 3, 7, 12}) {
    const pid_t checker = ::fork();
    ASSERT_GE(checker, 0);
    if (checker == 0)
      killAndCheck(dir, rounds);
    int status = 0;
    ::waitpid(checker, &status, 0);
    ASSERT_TRUE(WIFEXITED(status)) << rounds;
    // 12: counter not durable; 13: a torn cache file; 14: a launch counted again.
    EXPECT_EQ(WEXITSTATUS(status), 0) << "after " << rounds << " rounds";
  }
}

}  // namespace
}  // namespace quorvel
