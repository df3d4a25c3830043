// The platform the library runs on: every operating-system service it uses.
//
// A host installs a Platform (or some of its services) before the first
// QuorvelTracker::sharedTracker() call; services it leaves empty are served by the POSIX
// defaults, configured by PosixPlatformOptions.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <quorvel/Json.h>
#include <quorvel/platform/Application.h>
#include <quorvel/platform/Bundle.h>
#include <quorvel/platform/ClassRegistry.h>
#include <quorvel/platform/Clock.h>
#include <quorvel/platform/Device.h>
#include <quorvel/platform/DispatchQueue.h>
#include <quorvel/platform/FileSystem.h>
#include <quorvel/platform/Locale.h>
#include <quorvel/platform/NetworkInterfaces.h>
#include <quorvel/platform/NotificationCenter.h>
#include <quorvel/platform/OutboxStore.h>
#include <quorvel/platform/PreferencesStore.h>
#include <quorvel/platform/Random.h>
#include <quorvel/platform/SecureStore.h>
#include <quorvel/platform/Sysctl.h>
#include <quorvel/platform/SystemLog.h>
#include <quorvel/platform/URLSession.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

class Transport;

struct Platform {
  std::shared_ptr<platform::Clock> clock;
  std::shared_ptr<platform::Dispatcher> dispatcher;
  std::shared_ptr<platform::PreferencesStore> preferences;
  std::shared_ptr<platform::SecureStore> secureStore;
  std::shared_ptr<platform::URLSessionFactory> urlSessions;
  std::shared_ptr<platform::NotificationCenter> notificationCenter;
  std::shared_ptr<platform::Device> device;
  std::shared_ptr<platform::Bundle> bundle;
  std::shared_ptr<platform::Locale> locale;
  std::shared_ptr<platform::FileSystem> fileSystem;
  std::shared_ptr<platform::Sysctl> sysctl;
  std::shared_ptr<platform::NetworkInterfaces> networkInterfaces;
  std::shared_ptr<platform::ClassRegistry> classRegistry;
  std::shared_ptr<platform::SystemLog> systemLog;
  std::shared_ptr<platform::Random> random;
  std::shared_ptr<platform::Application> application;
  // Where accepted reports wait for their answer; one tracker's at a time.
  std::shared_ptr<platform::OutboxStore> outbox;
};

// What the POSIX defaults need to know about the host application. Empty values are
// probed: the data directory defaults to $XDG_DATA_HOME/quorvel/<bundle id> (or
// ~/.local/share/...), the keychain to $XDG_STATE_HOME/quorvel/keychain.
struct PosixPlatformOptions {
  std::string bundleIdentifier = "com.example.app";
  std::string bundleVersion = "1";         // CFBundleVersion
  std::string bundleShortVersion = "1.0";  // CFBundleShortVersionString
  Json extraInfo = Json::object();         // merged into the info dictionary
  std::optional<std::string> receiptPath;  // the store receipt file
  std::string dataDirectory;               // the app's own data (Library, tmp)
  // Outlives the app's data; one per app (the default is kept per bundle identifier).
  std::string keychainDirectory;
  // Default: the machine's model (DMI product name, else "Linux PC"), never the host name,
  // which often names the machine's owner.
  std::optional<std::string> deviceName;
  std::optional<std::string> systemVersion;  // default: os-release VERSION_ID
  bool multitaskingSupported = true;
  // Extra CA certificates (PEM) trusted besides the system's, for a local service.
  std::optional<std::string> extraCAFile;
  // Requests without a timeout of their own give up after this long.
  std::chrono::milliseconds requestTimeout{60'000};
  // Larger responses are cut off and reported as transport failures.
  std::size_t maxResponseBytes = std::size_t{4} * 1024 * 1024;
  // Connections a URL session opens to one host at most; further requests wait in the
  // session and reuse the kept-alive connections.
  std::size_t maxConnectionsPerHost = 6;
  // The host's own HTTP stack (quorvel/Transport.h), used instead of libcurl when set; the
  // options above for libcurl then do not apply.
  std::shared_ptr<Transport> transport;
};

// Builds the POSIX default of every service.
Platform makePosixPlatform(const PosixPlatformOptions& options);
// Keeps the services `given` has and builds the POSIX default of the others only: a service
// that is given is never made, so one given in memory leaves the disk alone.
Platform makePosixPlatform(const PosixPlatformOptions& options, Platform given);

// Installs `platform`: its non-empty services replace the current ones. Call before the
// first sharedTracker(); later calls affect only objects built afterwards.
void installPlatform(const Platform& platform);

// The platform in use, built from POSIX defaults on first use when nothing was installed.
std::shared_ptr<const Platform> currentPlatform();

// The POSIX dispatcher: every serial queue, and the default main queue, is a lane on one
// pool of two threads (named "quorvel.pool"), which is also the global queue; a queue that
// waits for the disk has a thread of its own. Each of these threads ends after half a second
// without work. `mainQueue` replaces the default main queue, for
// hosts that run delegate callbacks on their own loop (see RunLoopQueue.h).
std::shared_ptr<platform::Dispatcher> makePosixDispatcher(
    std::shared_ptr<platform::DispatchQueue> mainQueue = nullptr);

}  // namespace quorvel

#pragma GCC visibility pop
