// Forgetting the install, for consent flows: everything the library keeps for this app goes,
// and the library stays stopped. A marker written first makes the job whole whatever stops
// it: a kill before the marker leaves everything as it was, a kill after it leaves the marker,
// and the next start finishes the job before anything else reads the app's state.
//
// Every process of the app on the data directory forgets: the stop marker says "forgotten",
// each one that sees it (within a second of its next send or write) drops what it holds in
// memory, and the outbox, which only the process holding the data directory may touch, is
// emptied by that process. One that forgets without holding it removes everything else and
// leaves the forgetting marker for the holder, which removes it once its outbox is empty.
#include "tracker/TrackerCore.h"

#include <array>
#include <string_view>

#include "cache/Outbox.h"
#include "cache/QuorvelRequestCache.h"
#include "log/Log.h"
#include "log/QuorvelProxyManager.h"
#include "net/QuorvelHTTPClient.h"
#include "platform/posix/JsonFilePreferencesStore.h"
#include "tracker/InstallEpoch.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

constexpr const char* kForgetMethod = "-[QuorvelTracker forgetThisInstall]";
constexpr const char* kMarkerName = "QuorvelForgetting";
constexpr std::size_t kEpochBytes = 16;

// For a preferences store that cannot remove everything at once.
constexpr std::array kPreferenceKeys = {keys::kCounter,
                                        keys::kInAppCounter,
                                        keys::kRealLaunchCounter,
                                        keys::kFirstLaunchDate,
                                        keys::kInstallDate,
                                        keys::kLastVersion,
                                        keys::kDate3,
                                        keys::kTimePassedSincePrevLaunch,
                                        keys::kUserId,
                                        keys::kOriginalUserId,
                                        keys::kReInstallCounter,
                                        keys::kConversionDataRequestRetries,
                                        keys::kHoplineDomain,
                                        keys::kHoplineVersion,
                                        keys::kHoplineScheme,
                                        keys::kInstallTimestamp,
                                        keys::kSearchAdsAttribution,
                                        keys::kConversionData,
                                        keys::kConversionDataCacheExpiration,
                                        keys::kGetConversionDataTiming,
                                        keys::kDeviceToken};

constexpr std::string_view kTempInfix = ".tmp-";
// A download's body, valid during its delegate's call only: a kill then leaves it behind.
constexpr std::string_view kDownloadPrefix = "quorvel-download-";
// The app's folders nest shallowly (Library/Caches/<cache>); deeper is none of ours.
constexpr int kSweepDepth = 3;

// A write cut short by a kill leaves its temp file, holding what it wrote. Removes those under
// `directory`; false when one is left.
bool sweepTemporaryFiles(platform::FileSystem& fs, const std::string& directory, int depth) {
  bool all = true;
  for (const auto& name : fs.contentsOfDirectory(directory).value_or(std::vector<std::string>{})) {
    const std::string path = directory + "/" + name;
    if (name.find(kTempInfix) != std::string::npos || name.starts_with(kDownloadPrefix))
      all = (fs.removeFile(path) || !fs.fileExists(path)) && all;
    else if (depth > 1)
      all = sweepTemporaryFiles(fs, path, depth - 1) && all;
  }
  return all;
}

}  // namespace

std::string TrackerCore::stopMarkerPath(const Platform& platform) {
  return platform.fileSystem->libraryDirectory() + "/" + std::string(kStopMarkerName);
}

std::string TrackerCore::forgetMarkerPath() const {
  return platform_->fileSystem->libraryDirectory() + "/" + kMarkerName;
}

bool TrackerCore::forgetThisInstall() {
  // Stopped here at once, but the stop marker that other processes watch is written only after
  // the forgetting's own marker, and says "forgotten" from its first write: a process that saw
  // a plain stop first would stay stopped with what it holds, and never forget.
  forgettingHere_ = true;
  struct Done {
    std::atomic<bool>& flag;
    ~Done() { flag = false; }
  } const done{forgettingHere_};
  consent_->stopAndSettle();
  httpClient_->cancelRequestsUnderWay();
  const std::lock_guard optIn(optInMutex_);
  stopAgainIfOptedInMeanwhile();
  switchPreferences_->setBool(keys::kStopped, true);
  switchPreferences_->synchronize();  // the stop holds if a kill cuts the forgetting short
  // Calls made before the stop are forgotten with the rest, not accepted after it.
  acceptIntake();
  forgetInMemory();
  auto& fs = *platform_->fileSystem;
  fs.createDirectory(fs.libraryDirectory());
  std::string reason;
  // The new install's epoch is chosen first and kept in the marker: a process that finishes
  // this forgetting, should a kill cut it short, writes this one, so that what another process
  // kept for the holder under the old epoch is never taken for the new install's.
  const auto epoch = InstallEpoch::make(*platform_->random);
  if (!epoch || !fs.writeFileAtomically(forgetMarkerPath(), *epoch, &reason)) {
    log_->log(kLogError, kForgetMethod,
              "Quorvel cannot forget this install now (%@); nothing changed", reason);
    setStopped(true);  // the stop holds, kept for the next starts, even so
    return false;
  }
  // The other processes forget too, once they see it: the marker says so, and the epoch,
  // written after it, still says so once an opt-in here removed the marker.
  forgottenHere_ = true;
  if (!fs.writeFileAtomically(stopMarkerPath(*platform_), Bytes{kForgottenMark}, &reason))
    log_->log(kLogError, kForgetMethod, "Quorvel could not tell other processes of the forgetting");
  if (!installEpoch_->renewTo(*epoch, switchPreferences_.get()))
    log_->log(kLogError, kForgetMethod, "Quorvel could not mark the install as forgotten");
  return eraseInstall(true);
}

void TrackerCore::renewEpochAsMarked() {
  auto& fs = *platform_->fileSystem;
  const auto chosen = fs.readFile(forgetMarkerPath());
  if (!chosen || chosen->size() != kEpochBytes) {
    installEpoch_->renew(*platform_->random, switchPreferences_.get());  // an older marker
    return;
  }
  if (fs.readFile(fs.libraryDirectory() + "/" + InstallEpoch::kName) != chosen)
    installEpoch_->renewTo(*chosen, switchPreferences_.get());
}

void TrackerCore::forgetIfForgottenElsewhere() {
  const std::lock_guard lock(optInMutex_);
  forgetIfForgottenElsewhereLocked();
}

void TrackerCore::forgetIfForgottenElsewhereLocked() {
  // Looked at now too: a stopped process does not look on its own. What it finds here is
  // carried out here, and its gate no longer takes it for news.
  installEpoch_->changedSinceLastLook();
  const bool renewed = installEpoch_->takeRenewed();
  if (!isStopped() || forgettingHere_)
    return;  // consent given again since (a fresh install runs), or this process forgets now
  auto& fs = *platform_->fileSystem;
  const bool unfinished = fs.fileExists(forgetMarkerPath());
  if (forgottenHere_ && !unfinished)
    return;  // the marker is this process's own, and its forgetting is done
  const auto mark = fs.readFile(stopMarkerPath(*platform_));
  // Forgotten elsewhere, and since then consented again (no marker) or stopped plainly.
  if (renewed && (!mark || *mark == Bytes{kStoppedMark})) {
    forgetOldInstallHeldHere(mark.has_value());
    return;
  }
  if (!unfinished && !(mark && *mark == Bytes{kForgottenMark}))
    return;
  log_->log(kLogInfo, kForgetMethod,
            "Quorvel forgets this install, as another process of the app did");
  // The process that forgot may have been killed before it renewed the epoch: what it meant
  // to write is written here (the same, if it was only slower than this look).
  if (unfinished)
    renewEpochAsMarked();
  acceptIntake();
  forgetInMemory();
  eraseInstall(false);
}

void TrackerCore::forgetOldInstallHeldHere(bool stoppedSince) {
  log_->log(kLogInfo, kForgetMethod, "%@",
            stoppedSince ? std::string("Quorvel lets go of the install it held: another process "
                                       "forgot it, and it has been stopped since")
                         : std::string("Quorvel lets go of the install it held: another process "
                                       "forgot it, and the user consented again since"));
  acceptIntake();
  forgetInMemory();
  // This process's copy of the preferences is the old install's: read again, never written
  // (unless a tracker of this process forgot: it shares the copy, which is the new one).
  if (auto* own = dynamic_cast<platform::JsonFilePreferencesStore*>(switchPreferences_.get());
      own && !installEpoch_->renewedThrough(switchPreferences_.get()))
    own->discardCopy();
  // What the outbox holds (the holder's records, a guest's reports in memory) is the old
  // install's; the forgetting's marker, left for the holder, goes once it is emptied.
  auto& fs = *platform_->fileSystem;
  if (outbox_->forgetAll())
    fs.removeFile(forgetMarkerPath());
  // Running again only if the consent was given again since; a stop stays.
  if (!fs.fileExists(stopMarkerPath(*platform_)) && !switchPreferences_->boolForKey(keys::kStopped))
    consent_->run();
}

void TrackerCore::forgetInMemory() {
  {
    const std::lock_guard lock(monitor_);
    customData_.reset();
    userEmails_.reset();
    emailCryptType_ = 0;
  }
  {
    const std::lock_guard lock(fieldsMutex_);
    customerUserID_.reset();
    deeplink_.reset();
    sourceApplication_.reset();
    pushPayload_.reset();
    lastLaunchTime_.reset();
  }
  {
    // Read again from the emptied outbox: a fresh install counts from 1.
    const std::lock_guard lock(countersMutex_);
    counterFloors_.clear();
    unkeptReachTaken_.clear();
  }
  remoteDebugging_.forgetInstall();
}

void TrackerCore::finishForgettingIfStarted() {
  auto& fs = *platform_->fileSystem;
  if (!fs.fileExists(forgetMarkerPath())) {
    // A kill while the marker was written leaves its temp file and nothing else of the job.
    const std::string prefix = std::string(kMarkerName) + std::string(kTempInfix);
    for (const auto& name :
         fs.contentsOfDirectory(fs.libraryDirectory()).value_or(std::vector<std::string>{})) {
      if (name.rfind(prefix, 0) == 0)
        fs.removeFile(fs.libraryDirectory() + "/" + name);
    }
    return;
  }
  log_->log(kLogInfo, kForgetMethod, "Quorvel finishes forgetting this install, cut short before");
  // The kill may have come before the stop marker was written: the stop holds, and the other
  // processes forget too.
  fs.writeFileAtomically(stopMarkerPath(*platform_), Bytes{kForgottenMark});
  renewEpochAsMarked();
  eraseInstall(true);
}

bool TrackerCore::eraseInstall(bool everyGuestFile) {
  bool whole = true;
  for (const char* item : {keys::kKeychainIdItem, keys::kKeychainReinstallCounterItem}) {
    const auto status = platform_->secureStore->remove(keys::kKeychainService, item);
    whole = whole && (status == platform::SecureStatus::success ||
                      status == platform::SecureStatus::itemNotFound);
  }
  whole = requestCache_->removeAll() && whole;
  whole = platform_->fileSystem->forgetCreationDates() && whole;
  // Held by another process, the outbox is that process's to empty: the marker stays for it.
  const bool outboxEmptied = outbox_->forgetAll(everyGuestFile);
  const bool outboxElsewhere = !outboxEmptied && outbox_->dataDirectoryHeldElsewhere();
  whole = (outboxEmptied || outboxElsewhere) && whole;
  whole =
      sweepTemporaryFiles(*platform_->fileSystem, platform_->fileSystem->libraryDirectory(),
                          kSweepDepth) &&
      sweepTemporaryFiles(*platform_->fileSystem, platform_->fileSystem->temporaryDirectory(), 1) &&
      whole;
  auto& prefs = *switchPreferences_;
  if (!prefs.removeAllObjects()) {
    for (const char* key : kPreferenceKeys)
      prefs.removeObjectForKey(key);
  }
  prefs.setBool(keys::kStopped, true);  // forgetting stops; only the host lets it run again
  whole = prefs.synchronize() && whole;
  remoteDebugging_.forgetInstall();
  if (!whole) {
    log_->log(kLogError, kForgetMethod,
              "Quorvel could not remove all of this install's data; the next start tries again");
    return false;
  }
  if (outboxElsewhere) {
    log_->log(kLogInfo, kForgetMethod,
              "Quorvel forgot this install; the process that holds the data directory empties "
              "its outbox once it sees the forgetting, within a second of its next send or write");
    return true;
  }
  platform_->fileSystem->removeFile(forgetMarkerPath());
  log_->log(kLogInfo, kForgetMethod,
            "Quorvel forgot this install; it stays stopped until setStopped(false), and then "
            "starts as a fresh install");
  return true;
}

}  // namespace quorvel
