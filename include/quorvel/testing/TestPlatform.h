// A platform for a host's own tests: virtual time and the recording transport in place of the
// clock, the queues and the network. Launches and events run when the test advances time;
// what they would have sent is in transport->sent(), decrypted.
#pragma once

#include <memory>
#include <string>

#include <quorvel/Platform.h>
#include <quorvel/testing/MemoryServices.h>
#include <quorvel/testing/RecordingTransport.h>
#include <quorvel/testing/VirtualTime.h>

namespace quorvel::testkit {

struct TestPlatform {
  std::shared_ptr<VirtualClock> clock;
  std::shared_ptr<VirtualDispatcher> dispatcher;
  std::shared_ptr<RecordingTransport> transport;
  // Set by the in-memory form only; null where the POSIX files serve.
  std::shared_ptr<MemoryPreferencesStore> preferences;
  std::shared_ptr<MemorySecureStore> secureStore;
  std::shared_ptr<MemoryFileSystem> fileSystem;
  std::shared_ptr<MemoryOutboxStore> outbox;
  std::shared_ptr<CapturingSystemLog> log;
  std::shared_ptr<const Platform> platform;
};

// Everything in memory: preferences, secure store, files and log as well, so a test needs
// no directory and each test starts as a fresh install. `developerKey` is the key the host
// gives the tracker, used to decrypt what it sends; `options` describe the app and device.
TestPlatform makeTestPlatform(const std::string& developerKey,
                              const PosixPlatformOptions& options = {});

// The POSIX files where `options` say (use a fresh directory per test): what the library
// keeps is on disk, as in the app, for tests that restart it.
TestPlatform makeTestPlatform(const PosixPlatformOptions& options, const std::string& developerKey);

}  // namespace quorvel::testkit
