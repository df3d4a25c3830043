// A whole platform of fakes, with typed access to each for the test.
#pragma once

#include <memory>

#include <quorvel/Logger.h>
#include <quorvel/Platform.h>
#include <quorvel/testing/RecordingTransport.h>

#include "log/Log.h"
#include "platform/posix/PosixServices.h"
#include "support/Fakes.h"
#include "support/VirtualTime.h"

namespace quorvel::test {

// The session the library sends its fire-and-forget requests through.
inline constexpr const char* kBackgroundSession = "com.quorvel.sdk";

struct TestPlatform {
  TestPlatform() { transport->holdAnswers(true); }
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;
  // Unanswered requests and work still queued hold what they captured, the platform among it;
  // let go of them with the platform.
  ~TestPlatform() {
    transport->clear();
    dispatcher->clear();
  }

  // Requests sent so far through `session` (any when empty), oldest first. Each stays
  // unanswered until the test answers it by its index among all requests.
  // Work due now runs first: a request leaves once the outbox's queue has written it.
  std::vector<platform::URLRequest> requests(std::string_view session = {}) const {
    dispatcher->runUntilIdle();
    std::vector<platform::URLRequest> out;
    for (const auto& r : transport->sent()) {
      if (session.empty() || r.session == session)
        out.push_back(r.request);
    }
    return out;
  }
  void respond(std::size_t index, long status, std::string body,
               std::string mimeType = "application/json", platform::HeaderList headers = {}) const {
    dispatcher->runUntilIdle();  // what is due is sent first
    transport->answer(
        index, {status, std::move(body), std::move(mimeType), std::nullopt, std::move(headers)});
  }
  void fail(std::size_t index, const Error& error) const {
    dispatcher->runUntilIdle();
    transport->answer(index, {0, "", "", error, {}});
  }

  std::shared_ptr<VirtualClock> clock = std::make_shared<VirtualClock>();
  std::shared_ptr<VirtualDispatcher> dispatcher = std::make_shared<VirtualDispatcher>(clock);
  std::shared_ptr<MemoryPreferencesStore> preferences = std::make_shared<MemoryPreferencesStore>();
  std::shared_ptr<MemorySecureStore> secureStore = std::make_shared<MemorySecureStore>();
  // No developer key: the tests decrypt with the emulator's independent code.
  std::shared_ptr<testkit::RecordingTransport> transport =
      std::make_shared<testkit::RecordingTransport>(dispatcher, std::string());
  std::shared_ptr<platform::InProcessNotificationCenter> notifications =
      std::make_shared<platform::InProcessNotificationCenter>();
  std::shared_ptr<FakeDevice> device = std::make_shared<FakeDevice>();
  std::shared_ptr<FakeBundle> bundle = std::make_shared<FakeBundle>();
  std::shared_ptr<FakeLocale> locale = std::make_shared<FakeLocale>();
  std::shared_ptr<MemoryFileSystem> fileSystem = std::make_shared<MemoryFileSystem>();
  std::shared_ptr<MemoryOutboxStore> outbox = std::make_shared<MemoryOutboxStore>();
  std::shared_ptr<FakeSysctl> sysctl = std::make_shared<FakeSysctl>();
  std::shared_ptr<FakeNetworkInterfaces> networkInterfaces =
      std::make_shared<FakeNetworkInterfaces>();
  std::shared_ptr<platform::InMemoryClassRegistry> classRegistry =
      std::make_shared<platform::InMemoryClassRegistry>();
  std::shared_ptr<CapturingSystemLog> systemLog = std::make_shared<CapturingSystemLog>();
  std::shared_ptr<ScriptedRandom> random = std::make_shared<ScriptedRandom>();
  std::shared_ptr<FakeApplication> application = std::make_shared<FakeApplication>();

  Platform platform() const {
    Platform p;
    p.clock = clock;
    p.dispatcher = dispatcher;
    p.preferences = preferences;
    p.secureStore = secureStore;
    p.urlSessions = transport;
    p.notificationCenter = notifications;
    p.device = device;
    p.bundle = bundle;
    p.locale = locale;
    p.fileSystem = fileSystem;
    p.sysctl = sysctl;
    p.networkInterfaces = networkInterfaces;
    p.classRegistry = classRegistry;
    p.systemLog = systemLog;
    p.random = random;
    p.application = application;
    p.outbox = outbox;
    return p;
  }
  std::shared_ptr<const Platform> shared() const {
    return std::make_shared<const Platform>(platform());
  }
  // A logger on these fakes, with logSwitches, mirroring into the process's collection.
  std::shared_ptr<const Log> log() const {
    return std::make_shared<const Log>(logSwitches, clock, systemLog,
                                       &QuorvelProxyManager::sharedManager());
  }
  std::shared_ptr<LogSwitches> logSwitches = std::make_shared<LogSwitches>();
  // Makes these fakes the process's platform and resets the logger's switches.
  void install() const {
    installPlatform(platform());
    QVSetShowDebugLogs(false);
    QVSetShowDebugLogsTrace(false);
  }
};

}  // namespace quorvel::test
