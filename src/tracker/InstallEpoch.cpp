#include "tracker/InstallEpoch.h"

#include <utility>

namespace quorvel {

InstallEpoch::InstallEpoch(std::shared_ptr<platform::FileSystem> fileSystem, std::string path)
    : fileSystem_(std::move(fileSystem)), path_(std::move(path)) {}

bool InstallEpoch::changedSinceLastLook() {
  auto now = fileSystem_->readFile(path_);
  const std::lock_guard lock(mutex_);
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

bool InstallEpoch::renew(platform::Random& random) {
  Bytes epoch(16);
  if (random.fill(epoch) != 0)
    return false;
  const std::lock_guard lock(mutex_);
  if (!fileSystem_->writeFileAtomically(path_, epoch))
    return false;
  looked_ = true;
  known_ = std::move(epoch);
  return true;
}

}  // namespace quorvel
