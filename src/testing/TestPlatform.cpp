#include <quorvel/testing/TestPlatform.h>

namespace quorvel::testkit {
namespace {

TestPlatform withVirtualTimeAndNetwork(const std::string& developerKey) {
  TestPlatform kit;
  kit.clock = std::make_shared<VirtualClock>();
  kit.dispatcher = std::make_shared<VirtualDispatcher>(kit.clock);
  kit.transport = std::make_shared<RecordingTransport>(kit.dispatcher, developerKey);
  return kit;
}

Platform given(const TestPlatform& kit) {
  Platform p;
  p.clock = kit.clock;
  p.dispatcher = kit.dispatcher;
  p.urlSessions = kit.transport;
  p.preferences = kit.preferences;
  p.secureStore = kit.secureStore;
  p.fileSystem = kit.fileSystem;
  p.outbox = kit.outbox;
  p.systemLog = kit.log;
  return p;
}

}  // namespace

TestPlatform makeTestPlatform(const std::string& developerKey,
                              const PosixPlatformOptions& options) {
  TestPlatform kit = withVirtualTimeAndNetwork(developerKey);
  kit.preferences = std::make_shared<MemoryPreferencesStore>();
  kit.secureStore = std::make_shared<MemorySecureStore>();
  kit.fileSystem = std::make_shared<MemoryFileSystem>();
  kit.outbox = std::make_shared<MemoryOutboxStore>();
  kit.log = std::make_shared<CapturingSystemLog>();
  // Installed now, as far as the library can tell: the install date is the Library
  // directory's creation.
  for (const auto& directory :
       {kit.fileSystem->libraryDirectory(), kit.fileSystem->cachesDirectory(),
        kit.fileSystem->temporaryDirectory()})
    kit.fileSystem->setDates(directory, kit.clock->now(), kit.clock->now());
  kit.platform = std::make_shared<const Platform>(makePosixPlatform(options, given(kit)));
  return kit;
}

TestPlatform makeTestPlatform(const PosixPlatformOptions& options,
                              const std::string& developerKey) {
  TestPlatform kit = withVirtualTimeAndNetwork(developerKey);
  kit.platform = std::make_shared<const Platform>(makePosixPlatform(options, given(kit)));
  return kit;
}

}  // namespace quorvel::testkit
