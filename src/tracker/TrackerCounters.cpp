// Persistent counters and dates of the installation.
#include "tracker/TrackerCore.h"

#include "log/Log.h"
#include "util/DateFormatter.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

int clampToInt(std::int64_t v) {
  return static_cast<int>(std::clamp<std::int64_t>(v, INT32_MIN, INT32_MAX));
}

}  // namespace

// `known`: the value the preferences hold. The store could not be read now: asked again at
// the next counter; while it is out of reach and an earlier process marked counters it could
// not keep, numbered above the preferences by the outbox's reach once, decided at the first
// ask, since those counters may have gone beyond what the preferences hold.
int TrackerCore::counterFloorLocked(const char* key, int known) {
  const auto it = counterFloors_.find(key);
  if (it != counterFloors_.end())
    return it->second;
  std::int64_t reach = 0;
  const auto kept = outbox_->counterFloor(key, reach);
  if (!kept) {
    const bool first = unkeptReachTaken_.emplace(key).second;
    return first && reach > 0 ? clampToInt(std::int64_t{known} + reach) : 0;
  }
  const int floor = clampToInt(*kept);
  counterFloors_.emplace(key, floor);
  return floor;
}

int TrackerCore::getCounter(bool increase) {
  static constexpr const char* kMethod = "-[QuorvelTracker getCounter:]";
  auto& prefs = *platform_->preferences;
  const std::lock_guard lock(countersMutex_);
  log_->log(kLogDebug, kMethod, "increase=%d", increase ? 1 : 0);
  int value = 0;
  if (prefs.objectForKey(keys::kCounter)) {
    value = clampToInt(prefs.integerForKey(keys::kCounter));
    log_->log(kLogDebug, kMethod, "launch number %d", value);
  } else {
    log_->log(kLogDebug, kMethod, "1st launch");
  }
  if (increase) {
    // Never below what the outbox kept with the last requests: the preferences may not have
    // reached the disk before the process died.
    value = std::max(value, counterFloorLocked(keys::kCounter, value));
    value = value == INT32_MAX ? value : value + 1;
    prefs.setInteger(keys::kCounter, value);
    outbox_->noteCounter(keys::kCounter, value);
    // Durable before the launch request leaves: the dispatch writes it then.
    persistPreferencesSoon();
    log_->log(kLogDebug, kMethod, "save counter %d", value);
  }
  return value;
}

int TrackerCore::getInAppCounter(bool increase) {
  static constexpr const char* kMethod = "-[QuorvelTracker getInAppCounter:]";
  auto& prefs = *platform_->preferences;
  const std::lock_guard lock(countersMutex_);
  int value = 0;
  if (prefs.objectForKey(keys::kInAppCounter)) {
    value = clampToInt(prefs.integerForKey(keys::kInAppCounter));
    log_->log(kLogDebug, kMethod, "in-app counter %d", value);
  } else {
    log_->log(kLogDebug, kMethod, "no in-app yet");
  }
  if (increase) {
    value = std::max(value, counterFloorLocked(keys::kInAppCounter, value));
    value = value == INT32_MAX ? value : value + 1;
    prefs.setInteger(keys::kInAppCounter, value);
    // Kept with the request in the outbox, durable before it leaves; the preferences follow
    // in their group commit.
    outbox_->noteCounter(keys::kInAppCounter, value);
    persistPreferencesSoon();
  }
  // Written with or without an increase, unlike the launch counter's line.
  log_->log(kLogDebug, kMethod, "save in-app counter %d", value);
  return value;
}

int TrackerCore::getRealLaunchCounter() {
  auto& prefs = *platform_->preferences;
  if (!prefs.objectForKey(keys::kRealLaunchCounter))
    return 1;
  const int stored = clampToInt(prefs.integerForKey(keys::kRealLaunchCounter));
  log_->log(kLogDebug, "-[QuorvelTracker getRealLaunchCounter]",
            "getRealLaunchCounter real lanunch number %d", stored);
  return stored == INT32_MAX ? stored : stored + 1;
}

void TrackerCore::incrementRealLaunchCounter() {
  auto& prefs = *platform_->preferences;
  int value = 1;
  if (prefs.objectForKey(keys::kRealLaunchCounter)) {
    const int stored = clampToInt(prefs.integerForKey(keys::kRealLaunchCounter));
    value = stored == INT32_MAX ? stored : stored + 1;
  }
  log_->log(kLogDebug, "-[QuorvelTracker incrementRealLaunchCounter]",
            "incrementRealLaunchCounter real lanunch counter after increment = %d", value);
  prefs.setInteger(keys::kRealLaunchCounter, value);
  prefs.synchronize();
}

std::string TrackerCore::getFirstLanuchDate(const QVDateFormatter& formatter) {
  static constexpr const char* kMethod = "-[QuorvelTracker getFirstLanuchDate:]";
  auto& prefs = *platform_->preferences;
  std::string value;
  if (auto stored = prefs.stringForKey(keys::kFirstLaunchDate)) {
    value = *stored;
  } else {
    // Launched before by a version that kept no date: the empty string, for good.
    if (getCounter(false) <= 1) {
      log_->log(kLogDebug, kMethod, "first launch detected");
      value = formatter.stringFromDate(platform_->clock->now());
    }
    prefs.setString(keys::kFirstLaunchDate, value);
    prefs.synchronize();
  }
  log_->log(kLogDebug, kMethod, "first launch date: %@", value);
  return value;
}

std::optional<std::string> TrackerCore::getInstallDate(const QVDateFormatter& formatter) {
  auto& prefs = *platform_->preferences;
  if (auto stored = prefs.stringForKey(keys::kInstallDate))
    return stored;
  log_->log(kLogDebug, "-[QuorvelTracker getInstallDate:]", "first installDate detected");
  const auto created = installDate();
  if (!created)
    return std::nullopt;  // unreadable: nothing usable to store
  std::string text = formatter.stringFromDate(*created);
  prefs.setString(keys::kInstallDate, text);
  return text;
}

std::optional<std::chrono::system_clock::time_point> TrackerCore::installDate() const {
  const auto& fs = *platform_->fileSystem;
  return fs.creationDate(fs.libraryDirectory());
}

std::optional<std::chrono::system_clock::time_point> TrackerCore::temporaryDirectoryDate() const {
  using namespace std::chrono_literals;
  const auto now = platform_->clock->now();
  {
    const std::lock_guard lock(fieldsMutex_);
    // A clock set back is a reason to read again too.
    if (const auto& kept = temporaryDirectoryDate_;
        kept && now >= kept->readAt && now - kept->readAt < 1s)
      return kept->date;
  }
  const auto& fs = *platform_->fileSystem;
  const auto date = fs.modificationDate(fs.temporaryDirectory());
  const std::lock_guard lock(fieldsMutex_);
  temporaryDirectoryDate_ = TimedDate{now, date};
  return date;
}

std::optional<std::string> TrackerCore::getVersionUpdateDate(
    const std::optional<std::string>& version,
    const std::optional<std::string>& currentUpdateDate) {
  static constexpr const char* kMethod =
      "-[QuorvelTracker getVersionUpdateDate:currentUpdateDate:]";
  auto& prefs = *platform_->preferences;
  const auto saved = prefs.stringForKey(keys::kLastVersion);
  log_->log(kLogDebug, kMethod, "saved version: %@", saved);
  if (saved && saved == version) {
    log_->log(kLogDebug, kMethod, "use date3 from storage");
    return prefs.stringForKey(keys::kDate3);
  }
  if (saved) {
    // An update also secures the identifier in the keychain.
    setOriginalQuorvelIdToKeychainIfNeeded(getQuorvelUID());
  }
  log_->log(kLogDebug, kMethod, "new version detected");
  prefs.setObject(keys::kLastVersion, version ? Json(*version) : Json());
  prefs.setObject(keys::kDate3, currentUpdateDate ? Json(*currentUpdateDate) : Json());
  prefs.removeObjectForKey(keys::kConversionDataRequestRetries);
  return currentUpdateDate;
}

double TrackerCore::getTimePassedSinceLastLaunch() {
  auto& prefs = *platform_->preferences;
  const double previous = prefs.doubleForKey(keys::kTimePassedSincePrevLaunch);
  const double now = platform::secondsSince1970(platform_->clock->now());
  const double result = previous > 0 ? now - previous : -1;
  prefs.setDouble(keys::kTimePassedSincePrevLaunch, now);
  persistPreferencesSoon();
  return result;
}

bool TrackerCore::isWifiAvailable() const {
  log_->log(kLogDebug, "-[QuorvelTracker isWifiAvailable]", "check network");
  const auto list = platform_->networkInterfaces->addresses();
  if (!list || list->empty())
    return false;
  for (const auto& a : *list) {
    if (a.family == platform::InterfaceAddress::Family::ipv4 && !a.isLoopback && a.name == "en0") {
      return true;
    }
  }
  return false;
}

}  // namespace quorvel
