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

std::optional<Bytes> InstallEpoch::make(platform::Random& random) {
  Bytes epoch(16);
  if (random.fill(epoch) != 0)
    return std::nullopt;
  return epoch;
}

bool InstallEpoch::renew(platform::Random& random, const void* store) {
  auto epoch = make(random);
  return epoch && renewTo(std::move(*epoch), store);
}

bool InstallEpoch::renewTo(Bytes epoch, const void* store) {
  {
    // The first writer of an epoch is the tracker that forgot: a process that finishes its
    // forgetting with the same epoch is not.
    const std::lock_guard written(gWrittenMutex);
    writtenHere().try_emplace(epoch, store);
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

std::optional<std::string> InstallEpoch::onDisk() const {
  const auto now = fileSystem_->readFile(path_);
  if (!now)
    return fileSystem_->fileExists(path_) ? std::nullopt : std::optional<std::string>("");
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const auto byte : *now) {
    text += kDigits[static_cast<unsigned>(byte) >> 4];
    text += kDigits[static_cast<unsigned>(byte) & 15U];
  }
  return text;
}

}  // namespace quorvel
