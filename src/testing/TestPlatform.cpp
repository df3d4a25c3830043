#include <quorvel/testing/TestPlatform.h>

namespace quorvel::testkit {

TestPlatform makeTestPlatform(const PosixPlatformOptions& options,
                              const std::string& developerKey) {
  TestPlatform kit;
  kit.clock = std::make_shared<VirtualClock>();
  kit.dispatcher = std::make_shared<VirtualDispatcher>(kit.clock);
  kit.transport = std::make_shared<RecordingTransport>(kit.dispatcher, developerKey);
  Platform platform = makePosixPlatform(options);
  platform.clock = kit.clock;
  platform.dispatcher = kit.dispatcher;
  platform.urlSessions = kit.transport;
  kit.platform = std::make_shared<const Platform>(std::move(platform));
  return kit;
}

}  // namespace quorvel::testkit
