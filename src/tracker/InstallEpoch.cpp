#include "tracker/InstallEpoch.h"

#include <map>
#include <utility>

namespace quorvel {
namespace {

// The epochs written in this process, each with the preferences store of the tracker that
// wrote it: another tracker on that store shares its copy, which is then the new install's.
std::mutex gWrittenMutex;
std::map<Bytes, const void*>& writtenHere() {
  static auto* written = new std::map<Bytes, const void*>();  // never destroyed: asked at exit
  return *written;
}

}  // namespace

InstallEpoch::InstallEpoch(std::shared_ptr<platform::FileSystem> fileSystem, std::string path)
    : fileSystem_(std::move(fileSystem)), path_(std::move(path)) {}

bool InstallEpoch::changedSinceLastLook() {
  // Under the lock: a look that read an older epoch never stores it after a newer one.
  const std::lock_guard lock(mutex_);
  auto now = fileSystem_->readFile(path_);
  if (!now && known_)
    return false;  // a read that failed says nothing (the file is never removed)
  if (!looked_ || now == known_) {
    looked_ = true;
    known_ = std::move(now);
    return false;
  }
  known_ = std::move(now);
  renewed_ = true;
  return true;
}

bool InstallEpoch::takeRenewed() {
  const std::lock_guard lock(mutex_);
  return std::exchange(renewed_, false);
}

bool InstallEpoch::renewedThrough(const void* store) {
  const std::lock_guard lock(mutex_);
  const std::lock_guard written(gWrittenMutex);
  const auto it = known_ ? writtenHere().find(*known_) : writtenHere().end();
  return it != writtenHere().end() && it->second == store;
}

bool InstallEpoch::renew(platform::Random& random, const void* store) {
  Bytes epoch(16);
  if (random.fill(epoch) != 0)
    return false;
  {
    const std::lock_guard written(gWrittenMutex);
    writtenHere().insert_or_assign(epoch, store);
  }
  // Written outside the lock: a look meanwhile waits for no disk flush.
  if (!fileSystem_->writeFileAtomically(path_, epoch))
    return false;
  const std::lock_guard lock(mutex_);
  looked_ = true;
  known_ = std::move(epoch);
  renewed_ = false;
  return true;
}

}  // namespace quorvel
