// Which install the data directory holds, as the processes on it see it: each forgetting writes
// a new epoch, which no opt-in removes. A process that finds it changed since it last looked
// learns that the install it holds in memory was forgotten, even when the forgetting and the
// user's consent again came between two of its looks (the stop marker is gone by then).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <quorvel/Json.h>
#include <quorvel/platform/FileSystem.h>
#include <quorvel/platform/Random.h>

namespace quorvel {

class InstallEpoch {
 public:
  InstallEpoch(std::shared_ptr<platform::FileSystem> fileSystem, std::string path);

  // Reads the epoch; true when it changed since the last look (the first look only notes it).
  // The change is also kept for takeRenewed().
  bool changedSinceLastLook();
  // True once after changedSinceLastLook() saw a change.
  bool takeRenewed();
  // A forgetting here, by a tracker whose preferences are `store`: a new epoch, which this
  // tracker knows already.
  bool renew(platform::Random& random, const void* store);
  // The same with an epoch chosen beforehand (kept in the forgetting's marker), so that a
  // process that finishes a forgetting another one began writes the epoch that one would have:
  // two writers never make two forgettings of one.
  bool renewTo(Bytes epoch, const void* store);
  static std::optional<Bytes> make(platform::Random& random);
  // The epoch on the disk now, as text: empty when none was ever written (no forgetting yet),
  // nothing when it cannot be read now. Records kept for another process carry it.
  std::optional<std::string> onDisk() const;
  // The epoch last seen was written by a tracker on the preferences `store` (which shares this
  // one's copy of them).
  bool renewedThrough(const void* store);
  // A forgetting removes every file of the install but this one.
  static constexpr const char* kName = "QuorvelInstallEpoch";

 private:
  const std::shared_ptr<platform::FileSystem> fileSystem_;
  const std::string path_;
  std::mutex mutex_;
  bool looked_ = false;
  std::optional<Bytes> known_;
  bool renewed_ = false;
};

}  // namespace quorvel
