#include <quorvel/Platform.h>

#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include "platform/posix/CurlURLSession.h"
#include "platform/posix/FileSecureStore.h"
#include "platform/posix/JsonFilePreferencesStore.h"
#include "platform/posix/OpenSslLifetime.h"
#include "platform/posix/PosixServices.h"
#include "util/NoDestructor.h"

namespace quorvel {
namespace {

struct Registry {
  std::mutex mutex;
  std::shared_ptr<const Platform> current;
};

Registry& registry() {
  static NoDestructor<Registry> instance;
  return instance.get();
}

std::string homeBased(const char* xdgVariable, const char* fallbackUnderHome) {
  if (const char* xdg = std::getenv(xdgVariable); xdg != nullptr && *xdg == '/')
    return xdg;
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
    return std::string(home) + "/" + fallbackUnderHome;
  }
  return "/tmp/quorvel-" + std::to_string(getuid());
}

// A bundle identifier as one directory name: it must not climb out of its parent.
std::string directoryNameOf(const std::string& bundleIdentifier) {
  if (bundleIdentifier.empty() || bundleIdentifier == "." || bundleIdentifier == "..")
    return "_";
  std::string name = bundleIdentifier;
  for (char& c : name) {
    if (c == '/' || c == '\0')
      c = '_';
  }
  return name;
}

}  // namespace

namespace platform {

PosixPlatformOptions defaultPosixOptions() {
  return PosixPlatformOptions{};
}

void fillWithPosixDefaults(Platform& p, const PosixPlatformOptions& options) {
  const std::string dataDirectory = !options.dataDirectory.empty()
                                        ? options.dataDirectory
                                        : homeBased("XDG_DATA_HOME", ".local/share") + "/quorvel/" +
                                              directoryNameOf(options.bundleIdentifier);
  // One secure store per app: another app of the same user must not read this one's
  // identifiers and take itself for a reinstall.
  const std::string keychainDirectory = !options.keychainDirectory.empty()
                                            ? options.keychainDirectory
                                            : homeBased("XDG_STATE_HOME", ".local/state") +
                                                  "/quorvel/keychain/" +
                                                  directoryNameOf(options.bundleIdentifier);

  if (!p.clock)
    p.clock = std::make_shared<PosixClock>();
  if (!p.dispatcher)
    p.dispatcher = std::make_shared<PosixDispatcher>();
  if (!p.fileSystem)
    p.fileSystem = std::make_shared<PosixFileSystem>(dataDirectory);
  if (!p.preferences) {
    p.preferences = std::make_shared<JsonFilePreferencesStore>(
        dataDirectory + "/Library/Preferences/" + options.bundleIdentifier + ".json");
  }
  if (!p.secureStore)
    p.secureStore = std::make_shared<FileSecureStore>(keychainDirectory);
  if (!p.notificationCenter)
    p.notificationCenter = std::make_shared<InProcessNotificationCenter>();
  if (!p.device) {
    p.device = std::make_shared<PosixDevice>(options.deviceName, options.systemVersion,
                                             options.multitaskingSupported);
  }
  if (!p.bundle) {
    Json info = Json::object();
    info["CFBundleIdentifier"] = options.bundleIdentifier;
    info["CFBundleVersion"] = options.bundleVersion;
    info["CFBundleShortVersionString"] = options.bundleShortVersion;
    if (options.extraInfo.is_object()) {
      for (const auto& [k, v] : options.extraInfo.items())
        info[k] = v;
    }
    p.bundle = std::make_shared<StaticBundle>(options.bundleIdentifier, std::move(info),
                                              options.receiptPath);
  }
  if (!p.locale)
    p.locale = std::make_shared<PosixLocale>();
  if (!p.sysctl)
    p.sysctl = std::make_shared<LinuxSysctl>();
  if (!p.networkInterfaces)
    p.networkInterfaces = std::make_shared<PosixNetworkInterfaces>();
  if (!p.classRegistry)
    p.classRegistry = std::make_shared<InMemoryClassRegistry>();
  if (!p.systemLog)
    p.systemLog = std::make_shared<StderrSystemLog>();
  if (!p.random)
    p.random = std::make_shared<OpenSslRandom>();
  if (!p.application)
    p.application = std::make_shared<PosixApplication>();
  if (!p.urlSessions) {
    CurlSessionOptions curl;
    curl.extraCAFile = options.extraCAFile;
    curl.requestTimeout = options.requestTimeout;
    curl.maxResponseBytes = options.maxResponseBytes;
    curl.maxConnectionsPerHost = options.maxConnectionsPerHost;
    curl.downloadDirectory = p.fileSystem->temporaryDirectory();
    p.urlSessions = std::make_shared<CurlURLSessionFactory>(std::move(curl));
  }
}

}  // namespace platform

Platform makePosixPlatform(const PosixPlatformOptions& options) {
  platform::keepOpenSslUntilExit();
  Platform p;
  platform::fillWithPosixDefaults(p, options);
  return p;
}

std::shared_ptr<platform::Dispatcher> makePosixDispatcher(
    std::shared_ptr<platform::DispatchQueue> mainQueue) {
  return std::make_shared<platform::PosixDispatcher>(std::move(mainQueue));
}

void installPlatform(const Platform& installed) {
  auto next = std::make_shared<Platform>(installed);
  auto& r = registry();
  std::shared_ptr<const Platform> previous;
  {
    std::lock_guard lock(r.mutex);
    previous = r.current;
  }
  // Services not given keep the ones in use; the rest come from the POSIX defaults.
  if (previous) {
    auto keep = [](auto& field, const auto& old) {
      if (!field)
        field = old;
    };
    keep(next->clock, previous->clock);
    keep(next->dispatcher, previous->dispatcher);
    keep(next->preferences, previous->preferences);
    keep(next->secureStore, previous->secureStore);
    keep(next->urlSessions, previous->urlSessions);
    keep(next->notificationCenter, previous->notificationCenter);
    keep(next->device, previous->device);
    keep(next->bundle, previous->bundle);
    keep(next->locale, previous->locale);
    keep(next->fileSystem, previous->fileSystem);
    keep(next->sysctl, previous->sysctl);
    keep(next->networkInterfaces, previous->networkInterfaces);
    keep(next->classRegistry, previous->classRegistry);
    keep(next->systemLog, previous->systemLog);
    keep(next->random, previous->random);
    keep(next->application, previous->application);
  }
  platform::fillWithPosixDefaults(*next, platform::defaultPosixOptions());
  std::lock_guard lock(r.mutex);
  r.current = std::move(next);
}

std::shared_ptr<const Platform> currentPlatform() {
  auto& r = registry();
  {
    std::lock_guard lock(r.mutex);
    if (r.current)
      return r.current;
  }
  // Built outside the lock: the defaults may log, and logging asks for the platform.
  auto built = std::make_shared<Platform>(makePosixPlatform(platform::defaultPosixOptions()));
  std::lock_guard lock(r.mutex);
  if (!r.current)
    r.current = std::move(built);
  return r.current;
}

}  // namespace quorvel
