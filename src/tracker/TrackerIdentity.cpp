// The installation's identifier and its copy in the secure store.
#include "tracker/TrackerCore.h"

#include <algorithm>

#include "log/Log.h"
#include "platform/posix/JsonFilePreferencesStore.h"
#include "tracker/QuorvelKeychainWrapper.h"
#include "util/PreferenceKeys.h"
#include "util/Utf8.h"

namespace quorvel {

std::string TrackerCore::generateQuorvelId() const {
  const auto installed = installDate();
  const double installSeconds = installed ? platform::secondsSince1970(*installed) : 0.0;
  const long offset = platform_->clock->secondsFromGMT(platform_->clock->now());
  const std::string timePart =
      format("%0.0f", (installSeconds + static_cast<double>(offset)) * 1000.0);
  const auto number = static_cast<int>(platform_->random->uniform(9'999'999)) + 1;
  std::string id = format("%@-%i", timePart, number);
  std::erase(id, '.');
  return id;
}

std::string TrackerCore::getQuorvelUID() {
  // Callers on several threads at once get the one identifier that is kept. The gate is held
  // first, as a build that asks for the identifier holds it already: one order for both.
  const auto held = consent_->hold();
  const std::lock_guard lock(uidMutex_);
  auto& prefs = *platform_->preferences;
  if (auto stored = prefs.stringForKey(keys::kUserId); stored && !stored->empty())
    return *stored;
  // A stopped library makes no identifier: one made now would outlive the user's choice.
  if (isStopped())
    return std::string();
  std::string uid = generateQuorvelId();
  auto* const file = dynamic_cast<platform::JsonFilePreferencesStore*>(switchPreferences_.get());
  if (file == nullptr) {
    prefs.setString(keys::kUserId, uid);
    prefs.synchronize();
  } else {
    // Another process of the app (or another tracker on this folder) may have made the
    // install's identifier since this one read the preferences: the one stored first is the
    // install's. Under the gate, as the consented store writes: none is kept after a stop.
    if (consent_->stopped())
      return std::string();
    const Json kept = file->setObjectUnlessStored(keys::kUserId, Json(uid));
    if (kept.is_string() && !kept.get_ref<const std::string&>().empty())
      uid = kept.get<std::string>();
  }
  setOriginalQuorvelIdToKeychainIfNeeded(uid);
  return uid;
}

std::shared_ptr<QuorvelKeychainWrapper> TrackerCore::keychain() {
  const auto appId = appleAppID();
  std::lock_guard lock(fieldsMutex_);
  if (!keychain_) {
    keychain_ = std::make_shared<QuorvelKeychainWrapper>(
        platform_->secureStore, std::string(keys::kKeychainService), appId);
  }
  return keychain_;
}

void TrackerCore::setOriginalQuorvelIdToKeychainIfNeeded(const std::string& uid) {
  if (getKeychainData())
    return;
  auto wrapper = keychain();
  mBackgroundQueue_->async([wrapper, uid, consent = consent_, generation = consent_->generation()] {
    const auto held = consent->hold();
    if (!consent->holds(generation))
      return;  // forgotten or stopped in between: the identifier is not kept
    // The result is ignored: a failed write leaves the item for a later attempt.
    wrapper->setObject(keys::kKeychainIdItem, Bytes(uid.begin(), uid.end()));
  });
}

std::string TrackerCore::getOriginalQuorvelId() {
  if (auto original = platform_->preferences->stringForKey(keys::kOriginalUserId))
    return *original;
  return getQuorvelUID();
}

bool TrackerCore::getKeychainData() {
  auto wrapper = keychain();
  const auto idBytes = wrapper->getObject(keys::kKeychainIdItem);
  if (!idBytes)
    return false;
  const std::string original(idBytes->begin(), idBytes->end());
  if (!isValidUtf8(original))
    return false;
  auto& prefs = *platform_->preferences;
  prefs.setString(keys::kOriginalUserId, original);

  long long count = 1;
  if (const auto counterBytes = wrapper->getObject(keys::kKeychainReinstallCounterItem)) {
    const long long stored = leadingInteger(std::string_view(
        reinterpret_cast<const char*>(counterBytes->data()), counterBytes->size()));
    count = stored == LLONG_MAX ? stored : stored + 1;
  }
  prefs.setInteger(keys::kReInstallCounter, count);
  prefs.synchronize();
  const std::string text = format("%ld", count);
  const Bytes data(text.begin(), text.end());
  if (!wrapper->setObject(keys::kKeychainReinstallCounterItem, data)) {
    wrapper->update(keys::kKeychainReinstallCounterItem, data);
  }
  return true;
}

}  // namespace quorvel
