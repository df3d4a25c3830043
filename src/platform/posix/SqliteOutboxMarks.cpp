// The marks beside the outbox database that tell a later start about counters given out while
// the disk refused them: that some were (`.unkept-counters`), how many starts in a row did
// (`.unkept-counters-N` from 2 on, one file renamed upwards) and that no launch of them left
// yet. Each is an empty file: its creation writes no data, so a full disk (or a file size
// limit) still takes it where it refuses every record.
#include "platform/posix/SqliteOutboxStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/AtomicFile.h"
#include "platform/posix/OutboxSalvage.h"

namespace quorvel::platform {
namespace {

bool makeEmptyFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0)
    return false;
  ::close(fd);
  return true;
}

bool exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

}  // namespace

bool SqliteOutboxStore::setMark(const char* suffix, bool set) noexcept {
  const std::lock_guard lock(markMutex_);
  return setMarkLocked(suffix, set);
}

bool SqliteOutboxStore::setMarkLocked(const char* suffix, bool set) noexcept {
  if (inheritedByFork())
    return !set;  // the parent's folder
  const std::string mark = path_ + suffix;
  if (set ? !makeEmptyFile(mark) : ::unlink(mark.c_str()) != 0 && errno != ENOENT)
    return false;
  (suffix == kUnkeptSuffix ? countersMarked_ : launchMarked_) = set;
  return syncMarks();
}

bool SqliteOutboxStore::syncMarks() noexcept {
  try {
    syncDirectory(std::filesystem::path(path_).parent_path().string());
  } catch (...) {
    return false;
  }
  return true;
}

std::string SqliteOutboxStore::startsMark(int starts) const {
  return path_ + kUnkeptSuffix + "-" + std::to_string(starts);
}

// The numbers of the count's files in the folder: one, but a kill between the two steps of a
// raise where a rename cannot be used may leave two, the higher one counting.
std::vector<int> SqliteOutboxStore::startsMarksLocked() const {
  std::vector<int> found;
  for (const auto& [starts, file] : numberedBeside(path_, std::string(kUnkeptSuffix) + "-", 9))
    found.push_back(static_cast<int>(starts));
  return found;
}

int SqliteOutboxStore::unkeptStartsLocked() const {
  if (!exists(path_ + kUnkeptSuffix))
    return 0;
  const auto found = startsMarksLocked();
  return std::max({1, found.empty() ? 1 : *std::max_element(found.begin(), found.end())});
}

bool SqliteOutboxStore::removeStartsMarksLocked() noexcept {
  if (inheritedByFork())
    return true;
  try {
    for (const int starts : startsMarksLocked())
      if (::unlink(startsMark(starts).c_str()) != 0 && errno != ENOENT)
        return false;
  } catch (...) {
    return false;
  }
  startsMarked_ = 0;
  return true;
}

// The launch's mark goes first, the count next: neither stands without the counters' one.
bool SqliteOutboxStore::markCountersUnkept(bool unkept) noexcept {
  if (unkept)
    return setMark(kUnkeptSuffix, true);
  const std::lock_guard lock(markMutex_);
  return setMarkLocked(kLaunchUnsentSuffix, false) && removeStartsMarksLocked() &&
         setMarkLocked(kUnkeptSuffix, false);
}

bool SqliteOutboxStore::countersUnkept() const noexcept {
  const std::lock_guard lock(markMutex_);
  const bool marked = exists(path_ + kUnkeptSuffix);
  countersMarked_ = countersMarked_ || marked;
  return marked;
}

int SqliteOutboxStore::unkeptStarts() const noexcept {
  const std::lock_guard lock(markMutex_);
  try {
    const int starts = unkeptStartsLocked();
    startsMarked_ = std::max(startsMarked_, starts);
    return starts;
  } catch (...) {
    return exists(path_ + kUnkeptSuffix) ? 1 : 0;
  }
}

// A rename raises the count in one step: a kill leaves the old count or the new one.
bool SqliteOutboxStore::markUnkeptStarts(int starts) noexcept {
  const std::lock_guard lock(markMutex_);
  if (inheritedByFork())
    return false;
  try {
    if (starts >= 1 && !makeEmptyFile(path_ + kUnkeptSuffix))
      return false;
    countersMarked_ = countersMarked_ || starts >= 1;
    const int had = unkeptStartsLocked();
    if (starts >= 2 && had < starts &&
        (had >= 2 ? ::rename(startsMark(had).c_str(), startsMark(starts).c_str()) != 0
                  : !makeEmptyFile(startsMark(starts))))
      return false;
  } catch (...) {
    return false;
  }
  startsMarked_ = std::max(startsMarked_, starts);
  return syncMarks();
}

bool SqliteOutboxStore::markLaunchUnsent(bool unsent) noexcept {
  return setMark(kLaunchUnsentSuffix, unsent);
}

bool SqliteOutboxStore::launchUnsent() const noexcept {
  const std::lock_guard lock(markMutex_);
  const bool marked = exists(path_ + kLaunchUnsentSuffix);
  launchMarked_ = launchMarked_ || marked;
  return marked;
}

void SqliteOutboxStore::readMarks() noexcept {
  const std::lock_guard lock(markMutex_);
  countersMarked_ = exists(path_ + kUnkeptSuffix);
  launchMarked_ = exists(path_ + kLaunchUnsentSuffix);
  try {
    startsMarked_ = unkeptStartsLocked();
  } catch (...) {
    startsMarked_ = countersMarked_ ? 1 : 0;
  }
}

// The marks went with a folder emptied under this process: made again in the new one. Under
// the marks' lock, so that a launch's mark removed meanwhile is not made again.
void SqliteOutboxStore::remakeMarks() noexcept {
  const std::lock_guard lock(markMutex_);
  if (countersMarked_)
    setMarkLocked(kUnkeptSuffix, true);
  if (countersMarked_ && launchMarked_)
    setMarkLocked(kLaunchUnsentSuffix, true);
  try {
    if (countersMarked_ && startsMarked_ >= 2)
      makeEmptyFile(startsMark(startsMarked_));
  } catch (...) {
  }
}

}  // namespace quorvel::platform
