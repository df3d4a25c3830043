#include <quorvel/Platform.h>
#include <quorvel/Transport.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include <quorvel/Format.h>

#if QUORVEL_WITH_CURL
#include "platform/posix/CurlURLSession.h"
#endif
#include "platform/posix/FileSecureStore.h"
#include "platform/posix/JsonFilePreferencesStore.h"
#include "platform/posix/OpenSslLifetime.h"
#include "platform/posix/PosixServices.h"
#include "platform/posix/SqliteOutboxStore.h"

namespace quorvel {
namespace {

std::string homeBased(const char* xdgVariable, const char* fallbackUnderHome,
                      platform::SystemLog& log) {
  if (const char* xdg = std::getenv(xdgVariable); xdg != nullptr && *xdg == '/')
    return xdg;
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
    return std::string(home) + "/" + fallbackUnderHome;
  }
  return platform::privateFallbackDirectory("/tmp", log);
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

namespace {

// Made 0700 when missing; then it must be a folder (a symbolic link planted by another user is
// never followed), of this user, open to no one else.
bool isPrivateFolderOfThisUser(const std::string& path) {
  ::mkdir(path.c_str(), 0700);
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == getuid() &&
         (info.st_mode & 07777U) == 0700U;
}

// Names beside the usual one tried when it is not this user's: enough that a stray folder or
// two do not cost the install, few enough that a start does not wander.
constexpr int kAlternativeNames = 8;

}  // namespace

std::string privateFallbackDirectory(const std::string& base, SystemLog& log) {
  const std::string usual = base + "/quorvel-" + std::to_string(getuid());
  if (isPrivateFolderOfThisUser(usual))
    return usual;
  // Someone else's, or open to others. The first of a few fixed names beside it that is this
  // user's own: the same at every start, so the install and its queued reports are kept.
  for (int n = 1; n <= kAlternativeNames; ++n) {
    const std::string alternative = usual + "-" + std::to_string(n);
    if (isPrivateFolderOfThisUser(alternative)) {
      log.write(
          format("[ERROR] Quorvel: %@ is not a private folder of this user (not a folder, "
                 "another owner, or open to others); using %@. Set HOME or a data "
                 "directory.",
                 usual, alternative));
      return alternative;
    }
  }
  // Every name taken: a fresh private folder, which does not outlive this process.
  std::string pattern = usual + "-XXXXXX";
  const char* made = ::mkdtemp(pattern.data());
  log.write(
      format("[ERROR] Quorvel: %@ is not a private folder of this user (not a folder, "
             "another owner, or open to others), nor are the names beside it; using %@, which "
             "the next start will not find. Set HOME or a data directory.",
             usual, std::string(made != nullptr ? made : "nothing")));
  return made != nullptr ? std::string(made) : usual + "-unavailable";
}

namespace {
#if QUORVEL_WITH_CURL
std::shared_ptr<URLSessionFactory> defaultSessions(const Platform& p,
                                                   const PosixPlatformOptions& options) {
  CurlSessionOptions curl;
  curl.extraCAFile = options.extraCAFile;
  curl.requestTimeout = options.requestTimeout;
  curl.maxResponseBytes = options.maxResponseBytes;
  curl.maxConnectionsPerHost = options.maxConnectionsPerHost;
  curl.downloadDirectory = p.fileSystem->temporaryDirectory();
  curl.dispatcher = p.dispatcher;
  curl.systemLog = p.systemLog;
  return std::make_shared<CurlURLSessionFactory>(std::move(curl));
}
#else
// Built without libcurl and given no transport: every request fails as offline, so reports
// wait on disk (and go with the next run that has a transport) instead of being lost.
class NoTransport final : public Transport {
 public:
  void send(TransportRequest /*request*/, TransportDone done) noexcept override {
    try {
      done(std::nullopt, Error{kURLErrorDomain, -1009,
                               "Quorvel was built without libcurl and given no transport"});
    } catch (...) {
      // The library's completion never throws; a failure here has nowhere to go.
    }
  }
};

std::shared_ptr<URLSessionFactory> defaultSessions(const Platform& p,
                                                   const PosixPlatformOptions& /*options*/) {
  p.systemLog->write(
      "[ERROR] Quorvel: built without libcurl and given no transport "
      "(PosixPlatformOptions::transport): reports wait on disk and nothing is sent");
  return makeTransportSessions(std::make_shared<NoTransport>(), p.dispatcher,
                               p.fileSystem->temporaryDirectory());
}
#endif
}  // namespace

void fillWithPosixDefaults(Platform& p, const PosixPlatformOptions& options) {
  if (!p.systemLog)
    p.systemLog = std::make_shared<StderrSystemLog>();
  const std::string dataDirectory =
      !options.dataDirectory.empty() ? options.dataDirectory
                                     : homeBased("XDG_DATA_HOME", ".local/share", *p.systemLog) +
                                           "/quorvel/" + directoryNameOf(options.bundleIdentifier);
  // One secure store per app: another app of the same user must not read this one's
  // identifiers and take itself for a reinstall.
  const std::string keychainDirectory =
      !options.keychainDirectory.empty()
          ? options.keychainDirectory
          : homeBased("XDG_STATE_HOME", ".local/state", *p.systemLog) + "/quorvel/keychain/" +
                directoryNameOf(options.bundleIdentifier);

  if (!p.clock)
    p.clock = std::make_shared<PosixClock>();
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
  if (!p.urlSessions && options.transport) {
    p.urlSessions =
        makeTransportSessions(options.transport, p.dispatcher, p.fileSystem->temporaryDirectory());
  }
  if (!p.urlSessions)
    p.urlSessions = defaultSessions(p, options);
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
