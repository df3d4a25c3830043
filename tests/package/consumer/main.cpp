// Uses the installed headers only: a platform, a tracker on it, a host-made platform part
// (its virtual functions and type information must cross the library's boundary), a link.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>
#include <quorvel/Version.h>
#include <quorvel/platform/SystemLog.h>

namespace {

struct CountingLog final : quorvel::platform::SystemLog {
  int lines = 0;
  void write(std::string_view) noexcept override { ++lines; }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2)
    return 2;
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.example.consumer";
  options.dataDirectory = std::string(argv[1]) + "/data";
  options.keychainDirectory = std::string(argv[1]) + "/keychain";
  auto platform = quorvel::makePosixPlatform(options);
  auto log = std::make_shared<CountingLog>();
  platform.systemLog = log;
  quorvel::QuorvelTracker tracker(std::make_shared<const quorvel::Platform>(platform));
  tracker.setIsDebug(true);
  tracker.setQuorvelDevKey(std::string("CONSUMER-KEY"));
  tracker.setAppleAppID(std::string("123456789"));
  const std::string version = tracker.getSDKVersion();
  const std::string uid = tracker.getQuorvelUID();
  if (version.empty() || uid.empty() || log->lines == 0) {
    std::fprintf(stderr, "consumer: version '%s', uid '%s', %d log lines\n", version.c_str(),
                 uid.c_str(), log->lines);
    return 1;
  }
  std::printf("consumer ok: %s, %s, %d log lines\n", version.c_str(), uid.c_str(), log->lines);
  return 0;
}
