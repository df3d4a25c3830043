// A platform for a host's own tests: the POSIX platform on the host's directories, with
// virtual time and the recording transport in place of the clock, the queues and the
// network. Launches and events run when the test advances time; what they would have sent
// is in transport->sent(), decrypted.
#pragma once

#include <memory>
#include <string>

#include <quorvel/Platform.h>
#include <quorvel/testing/RecordingTransport.h>
#include <quorvel/testing/VirtualTime.h>

namespace quorvel::testkit {

struct TestPlatform {
  std::shared_ptr<VirtualClock> clock;
  std::shared_ptr<VirtualDispatcher> dispatcher;
  std::shared_ptr<RecordingTransport> transport;
  std::shared_ptr<const Platform> platform;
};

// `options` says where the files go (use a fresh directory per test); `developerKey` is the
// key the host gives the tracker, used to decrypt what it sends.
TestPlatform makeTestPlatform(const PosixPlatformOptions& options, const std::string& developerKey);

}  // namespace quorvel::testkit
