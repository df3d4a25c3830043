#include <quorvel/Platform.h>

#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include "platform/posix/CurlURLSession.h"
#include "platform/posix/FileSecureStore.h"
#include "platform/posix/JsonFilePreferencesStore.h"
#include "platform/posix/OpenSslLifetime.h"
#include "platform/posix/PosixServices.h"
#include "platform/posix/SqliteOutboxStore.h"

namespace quorvel {
namespace {

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
  if (!p.systemLog)
    p.systemLog = std::make_shared<StderrSystemLog>();
  if (!p.dispatcher)
    p.dispatcher = std::make_shared<PosixDispatcher>();
  if (!p.fileSystem)
    p.fileSystem = std::make_shared<PosixFileSystem>(dataDirectory);
  if (!p.preferences) {
    p.preferences = std::make_shared<JsonFilePreferencesStore>(
        dataDirectory + "/Library/Preferences/" + options.bundleIdentifier + ".json", p.systemLog);
  }
  if (!p.secureStore)
    p.secureStore = std::make_shared<FileSecureStore>(keychainDirectory, p.systemLog);
  if (!p.notificationCenter)
    p.notificationCenter = std::make_shared<InProcessNotificationCenter>();
  if (!p.device) {
    p.device =
        std::make_shared<PosixDevice>(options.deviceName, options.systemVersion,
                                      options.multitaskingSupported, options.bundleIdentifier);
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
  if (!p.random)
    p.random = std::make_shared<OpenSslRandom>();
  if (!p.application)
    p.application = std::make_shared<PosixApplication>();
  if (!p.outbox)
    p.outbox = std::make_shared<SqliteOutboxStore>(dataDirectory + "/Library/QuorvelOutbox.sqlite");
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
  return makePosixPlatform(options, Platform{});
}

Platform makePosixPlatform(const PosixPlatformOptions& options, Platform given) {
  platform::keepOpenSslUntilExit();
  platform::fillWithPosixDefaults(given, options);
  return given;
}

std::shared_ptr<platform::Dispatcher> makePosixDispatcher(
    std::shared_ptr<platform::DispatchQueue> mainQueue) {
  return std::make_shared<platform::PosixDispatcher>(std::move(mainQueue));
}

}  // namespace quorvel
