// A whole platform of fakes, with typed access to each for the test.
#pragma once

#include <memory>

#include <quorvel/Logger.h>
#include <quorvel/Platform.h>

#include "platform/posix/PosixServices.h"
#include "support/Fakes.h"
#include "support/VirtualTime.h"

namespace quorvel::test {

struct TestPlatform {
  TestPlatform() = default;
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;
  // Unanswered requests hold their callers; let go of them with the platform.
  ~TestPlatform() { urlSessions->resetAll(); }

  std::shared_ptr<VirtualClock> clock = std::make_shared<VirtualClock>();
  std::shared_ptr<VirtualDispatcher> dispatcher = std::make_shared<VirtualDispatcher>(clock);
  std::shared_ptr<MemoryPreferencesStore> preferences = std::make_shared<MemoryPreferencesStore>();
  std::shared_ptr<MemorySecureStore> secureStore = std::make_shared<MemorySecureStore>();
  std::shared_ptr<FakeURLSessionFactory> urlSessions =
      std::make_shared<FakeURLSessionFactory>(dispatcher);
  std::shared_ptr<platform::InProcessNotificationCenter> notifications =
      std::make_shared<platform::InProcessNotificationCenter>();
  std::shared_ptr<FakeDevice> device = std::make_shared<FakeDevice>();
  std::shared_ptr<FakeBundle> bundle = std::make_shared<FakeBundle>();
  std::shared_ptr<FakeLocale> locale = std::make_shared<FakeLocale>();
  std::shared_ptr<MemoryFileSystem> fileSystem = std::make_shared<MemoryFileSystem>();
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
    p.urlSessions = urlSessions;
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
    return p;
  }
  std::shared_ptr<const Platform> shared() const {
    return std::make_shared<const Platform>(platform());
  }
  // Makes these fakes the process's platform and resets the logger's switches.
  void install() const {
    installPlatform(platform());
    QVSetShowDebugLogs(false);
    QVSetShowDebugLogsTrace(false);
  }
};

}  // namespace quorvel::test
