// SQLite keeps the outbox: its journal survives the death of the process at any instruction,
// which a hand-written file format would have to prove again, and it reads a page of records
// by number. But a write into it can wait: for the checkpoint of another connection, and at
// the first write after a kill, for the recovery of the log the killed process left. A batch
// must reach the kernel within a few milliseconds of the host's call, so apply() only appends
// it to the intake file, one write() however busy the database is; sync(), at most once a
// second and off the writer's thread, moves what the intake holds into the database in one
// transaction and checkpoints, which flushes it to the disk itself. Until then load() reads
// the database with the intake's changes laid over it. The intake files a killed process left
// are laid over it the same way at open, and moved in by the first sync().
//
// This file is the normal path: open and close (a forked child's copy let go), apply, sync.
// Reads are in SqliteOutboxReads.cpp, the files beside the database in SqliteOutboxFiles.cpp,
// healing a damaged database in SqliteOutboxHealing.cpp.
#include "platform/posix/SqliteOutboxStore.h"

#include "platform/posix/OutboxSalvage.h"
#include "platform/posix/SqliteStatement.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string_view>
#include <utility>

namespace quorvel::platform {
namespace {

// Owner-only mode for the database, set through a descriptor of the file itself: a mode set
// by name would follow a link put in its place to whatever it points to (a device, say).
void keepPrivate(const std::string& path) noexcept {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0)
    return;
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
    ::fchmod(fd, 0600);
  ::close(fd);
}

}  // namespace

SqliteOutboxStore::SqliteOutboxStore(std::string path) : path_(std::move(path)) {}

SqliteOutboxStore::~SqliteOutboxStore() {
  close();
}

// Under the intake's lock: load() may be reading on another thread.
void SqliteOutboxStore::close() noexcept {
  if (inheritedByFork()) {
    forgetInherited();
    return;
  }
  const std::lock_guard lock(intakeMutex_);
  closeLocked();
}

void SqliteOutboxStore::closeLocked() noexcept {
  closeFilesLocked();
  carried_.clear();  // let go or forgotten: what removed files held goes nowhere now
  lock_.reset();     // releases the advisory lock
}

void SqliteOutboxStore::closeFilesLocked() noexcept {
  intake_.reset();
  healAttempts_ = 0;
  healPending_ = false;
  idFloor_ = 0;
  retired_.clear();
  pending_.clear();
  committing_.clear();
  if (syncDb_ != nullptr) {
    sqlite3_close_v2(syncDb_);
    syncDb_ = nullptr;
  }
  if (db_ != nullptr) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }
}

// In a child made by fork() the parent's descriptors are closed already; its connections are
// not closed (SQLite must not touch a connection across a fork: closing one may checkpoint
// the parent's log) but let go, a leak of the child's only. No lock is taken: a thread of the
// parent may have held one at the fork.
bool SqliteOutboxStore::inheritedByFork() noexcept {
  if (!inherited_.load() && lock_.closedByFork())
    inherited_.store(true);
  return inherited_.load();
}

void SqliteOutboxStore::forgetInherited() noexcept {
  db_ = nullptr;
  syncDb_ = nullptr;
  intake_.reset();
  idFloor_ = 0;
  retired_.clear();
  pending_.clear();
  committing_.clear();
  lock_ = ParentOnlyDescriptor();
}

void SqliteOutboxStore::release() noexcept {
  released_ = true;
  {
    const std::lock_guard watching(watchMutex_);
    folderWatch_.reset();
  }
  {
    const std::lock_guard syncing(syncMutex_);
    const std::lock_guard adopting(adoptMutex_);
    if (inheritedByFork()) {
      forgetInherited();
    } else {
      const std::lock_guard lock(intakeMutex_);
      closeLocked();  // what the intake holds unsynced, the next holder reads from its file
    }
  }
  const std::lock_guard guest(guestMutex_);
  guest_.reset();
}

bool SqliteOutboxStore::exec(const char* sql) noexcept {
  return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::shared_ptr<OutboxStore> SqliteOutboxStore::forOneTracker(
    const std::shared_ptr<OutboxStore>& given) {
  if (const auto* sqlite = dynamic_cast<const SqliteOutboxStore*>(given.get()))
    return std::make_shared<SqliteOutboxStore>(sqlite->path_);
  return given;
}

bool SqliteOutboxStore::open(std::string& reason) noexcept {
  if (inheritedByFork()) {
    close();
    reason = "a child made by fork() cannot use its parent's outbox: it makes its own";
    return false;
  }
  if (released_) {
    reason = "the tracker that used this outbox has ended";
    return false;
  }
  if (lock_.get() >= 0 && !heldElsewhere_)
    return true;  // open already
  if (lock_.get() >= 0) {
    // Another process took the folder while this store was open: its files here are gone.
    const std::lock_guard syncing(syncMutex_);
    const std::lock_guard adopting(adoptMutex_);
    const std::lock_guard lock(intakeMutex_);
    closeLocked();
  }
  // The caller's default text would hide the store's own reason (a full disk, say).
  reason.clear();
  heldElsewhere_ = false;
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
  const std::string lockPath = path_ + ".lock";
  // Wrapped before it is locked: a fork in between leaves the child an unlocked descriptor.
  lock_ = ParentOnlyDescriptor(
      ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (lock_.get() < 0) {
    reason = "cannot open " + lockPath + ": " + std::strerror(errno);
    return false;
  }
  if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    heldElsewhere_ = errno == EWOULDBLOCK;
    reason = "another process uses the data directory (" + lockPath + " is locked)";
    close();
    return false;
  }
  const std::lock_guard syncing(syncMutex_);
  const std::lock_guard adopting(adoptMutex_);
  const std::lock_guard lock(intakeMutex_);
  try {
    damage_ = 0;
    unhealedAtOpen_ = false;
    // A healing that a kill cut short between its two renames: the saved records take the
    // place the damaged file left.
    if (const std::string healing = path_ + kHealingSuffix;
        ::access(path_.c_str(), F_OK) != 0 && ::access(healing.c_str(), F_OK) == 0)
      ::rename(healing.c_str(), path_.c_str());
    bool opened = openDatabaseLocked(reason);
    if (!opened && damage_ != 0) {
      opened = healLocked(reason);
      // Not healed now (no room to read it back or to write what was saved): the intake takes
      // the batches meanwhile, as when damage is met later, and the healing is tried again at
      // later syncs. Its records are numbered above any the damaged file may hold, which are
      // not all known: see startIntakeLocked().
      if (!opened && damage_ != 0) {
        unhealedAtOpen_ = true;
        waitToHealLocked(reason);
        opened = true;
      }
    }
    if (opened && startIntakeLocked(reason)) {
      readMarks();  // so that a folder emptied before the first look at them makes them again
      return true;
    }
  } catch (...) {
    reason = "out of memory reading " + path_ + kIntakeSuffix + "*";
  }
  {
    const std::lock_guard note(noteMutex_);
    lastError_ = reason;
  }
  closeLocked();
  return false;
}

void SqliteOutboxStore::noteFailureLocked(sqlite3* db, const char* what) noexcept {
  const int code = db ? sqlite3_extended_errcode(db) : SQLITE_NOMEM;
  if (isDamage(code))
    damage_ = code;
  try {
    const std::lock_guard note(noteMutex_);
    lastError_ = std::string(what) + " " + path_ + ": " + (db ? sqlite3_errmsg(db) : "no memory");
  } catch (...) {
  }
}

std::string SqliteOutboxStore::lastError() const {
  const std::lock_guard note(noteMutex_);
  return lastError_.empty() ? std::string("write refused") : lastError_;
}

std::string SqliteOutboxStore::takeHealingNote() {
  const std::lock_guard note(noteMutex_);
  return std::exchange(healingNote_, std::string());
}

bool SqliteOutboxStore::openDatabaseLocked(std::string& reason) noexcept {
  // A link in the database's place is refused, as for the lock file: the store writes, and
  // changes the mode of, its own file only. (SQLite's own no-follow flag would also refuse a
  // linked folder above it, which a data directory may well be.)
  if (struct stat st{}; ::lstat(path_.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    reason = "cannot open " + path_ + ": it is a symbolic link";
    return false;
  }
  // A FIFO, a folder or a device in its place is no database of ours, and would keep every
  // start in memory: set aside as a damaged one is (it holds no record to save).
  if (struct stat st{}; ::lstat(path_.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    std::string aside;
    const auto stamp = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
    if (!setAside(path_, stamp, aside)) {
      reason = "cannot set aside " + path_ + ", which is not a file: " + std::strerror(errno);
      return false;
    }
    const std::lock_guard note(noteMutex_);
    healingNote_ = "Quorvel outbox: " + path_ + " was not a file; set aside as " + aside;
  }
  struct stat existing {};
  const bool fresh = ::stat(path_.c_str(), &existing) != 0 || existing.st_size == 0;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path_.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    noteFailureLocked(db_, "cannot open");
    reason = "cannot open " + path_ + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory");
    return false;
  }
  keepPrivate(path_);
  if (struct stat opened{}; ::stat(path_.c_str(), &opened) == 0)
    databaseFile_ = {opened.st_dev, opened.st_ino};
  sqlite3_busy_timeout(db_, 1000);
  // No checkpoint inside a write: sync() does them, on its own connection.
  // The outbox appends and removes by number: a small page cache does (the default 2 MB
  // showed in the host's memory under a burst).
  // A new file holds nothing yet: turning it to WAL and making its table without a sync spares
  // a first start eight syncs (20-50 ms before its first records could be written). A file torn
  // by a power cut here is empty or unreadable, and an unreadable one is set aside and started
  // afresh; the records themselves reach the intake file first in any case.
  if (fresh && !exec("PRAGMA synchronous=OFF")) {
    noteFailureLocked(db_, "cannot prepare");
    reason = "cannot prepare " + path_ + ": " + sqlite3_errmsg(db_);
    return false;
  }
  if (!exec("PRAGMA journal_mode=WAL") || !exec("PRAGMA wal_autocheckpoint=0") ||
      !exec("PRAGMA cache_size=-1024") || !checkSchemaLocked(reason) ||
      !exec("PRAGMA synchronous=NORMAL")) {
    noteFailureLocked(db_, "cannot prepare");
    if (reason.empty())
      reason = "cannot prepare " + path_ + ": " + sqlite3_errmsg(db_);
    return false;
  }
  if (sqlite3_open_v2(path_.c_str(), &syncDb_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                      nullptr) != SQLITE_OK) {
    reason =
        "cannot open " + path_ + " twice: " + (syncDb_ ? sqlite3_errmsg(syncDb_) : "out of memory");
    return false;
  }
  sqlite3_busy_timeout(syncDb_, 1000);
  sqlite3_exec(syncDb_, "PRAGMA cache_size=-256", nullptr, nullptr, nullptr);
  sqlite3_exec(syncDb_, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
  // A connection that has not read the database yet does not know its log, and its
  // checkpoints would do nothing.
  if (sqlite3_exec(syncDb_, "SELECT count(*) FROM sqlite_schema", nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    noteFailureLocked(syncDb_, "cannot read");
    reason = "cannot read " + path_ + ": " + sqlite3_errmsg(syncDb_);
    return false;
  }
  return true;
}

// Two calls, at each write and sync: a lock on a file that was removed holds nothing, and a
// process started meanwhile would lock a new one and hold the folder too.
bool SqliteOutboxStore::stillHoldsLocked(bool* lockRemade) noexcept {
  if (heldElsewhere_)
    return false;
  const std::string lockPath = path_ + ".lock";
  struct stat held {};
  struct stat atPath {};
  if (::fstat(lock_.get(), &held) != 0)
    return false;
  if (::lstat(lockPath.c_str(), &atPath) == 0 && atPath.st_dev == held.st_dev &&
      atPath.st_ino == held.st_ino && held.st_nlink > 0)
    return true;
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
  ParentOnlyDescriptor fresh(
      ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (fresh.get() < 0)
    return true;  // nothing can be made there now, and no other process can lock it either
  if (::flock(fresh.get(), LOCK_EX | LOCK_NB) == 0) {
    lock_ = std::move(fresh);  // still the only holder
    if (lockRemade != nullptr)
      *lockRemade = true;
    return true;
  }
  if (errno != EWOULDBLOCK)
    return true;
  heldElsewhere_ = true;
  try {
    const std::lock_guard note(noteMutex_);
    lastError_ = "another process took the data directory (" + lockPath +
                 " was removed, made again and locked by it)";
  } catch (...) {
  }
  return false;
}

bool SqliteOutboxStore::apply(const std::vector<OutboxChange>& changes) noexcept {
  std::unique_lock lock(intakeMutex_);
  bool lockRemade = false;
  if (intake_ && !stillHoldsLocked(&lockRemade))
    return false;
  // The folder emptied (its files likely with the lock), or a reopening that failed: the
  // batch goes to the files at the path, not to removed ones.
  if (lockRemade || (!intake_ && lock_.get() >= 0)) {
    lock.unlock();
    reopenIfMoved();
    lock.lock();
    if (!intake_ || !stillHoldsLocked())
      return false;
  }
  if (!intake_)
    return false;
  try {
    std::vector<OutboxIntake::Place> places;
    if (!intake_->append(changes, places)) {
      const int error = errno;
      const std::lock_guard note(noteMutex_);
      lastError_ = "cannot write " + path_ + kIntakeSuffix + std::to_string(intakeNumber_) + ": " +
                   std::strerror(error);
      return false;
    }
    for (std::size_t i = 0; i < changes.size(); ++i)
      pending_.insert_or_assign(changes[i].id, Pending{intake_, places[i], !changes[i].content});
    return true;
  } catch (...) {
    // Out of memory after the append: the batch is in the intake, and the next start takes it
    // in; this process cannot read it back.
    return false;
  }
}

bool SqliteOutboxStore::commitToDatabase(const PendingMap& changes) noexcept {
  try {
    Transaction batch(syncDb_);
    bool done = batch.ok();
    std::string content;
    for (auto it = changes.begin(); done && it != changes.end(); ++it) {
      const auto& [id, change] = *it;
      done = change.removed
                 ? batch.change(id, nullptr)
                 : change.file->readAt(change.place, content) && batch.change(id, &content);
    }
    done = done && batch.commit();
    if (!done) {
      const std::lock_guard lock(intakeMutex_);
      noteFailureLocked(syncDb_, "cannot commit to");
    }
    return done;
  } catch (...) {
    return false;
  }
}

bool SqliteOutboxStore::sync() noexcept {
  {
    const std::lock_guard lock(intakeMutex_);
    if (intake_ && !stillHoldsLocked())
      return false;  // the records stay readable here until the library has handed them over
  }
  reopenIfMoved();
  healAgainIfDue();
  if (syncOnce())
    return true;
  {
    const std::lock_guard lock(intakeMutex_);
    if (damage_ == 0)
      return false;  // a passing fault: the next sync tries again
  }
  healAfterDamage();
  return syncOnce();
}

bool SqliteOutboxStore::syncOnce() noexcept {
  const std::lock_guard lock(syncMutex_);
  if (syncDb_ == nullptr)
    return false;
  adoptLeftIntakes();
  std::vector<std::string> covered;  // the retired files whose changes this commit moves
  try {
    const std::lock_guard intake(intakeMutex_);
    // After a failed commit nothing new is started: what failed is tried alone, the intake
    // file being written goes on growing, and the files stay few whatever the database does.
    if (committing_.empty()) {
      if (!pending_.empty())
        rotateIntakeLocked();
      // Handed over whole: a burst's ten thousand entries are not copied node by node.
      committing_.swap(pending_);
    }
    covered = retired_;
  } catch (...) {
    return false;  // out of memory: the next sync tries again
  }
  // Only this thread changes `committing_`, so it reads it without the intake's lock.
  const bool committed = committing_.empty() || commitToDatabase(committing_);
  if (committed) {
    const std::lock_guard intake(intakeMutex_);
    committing_.clear();
    // A file that stays would lay its old changes over the database again at the next start
    // (an answered report back): one that cannot go now is tried again at the next sync.
    std::size_t gone = 0;
    while (gone < covered.size() && (::unlink(covered[gone].c_str()) == 0 || errno == ENOENT))
      ++gone;
    retired_.erase(retired_.begin(), retired_.begin() + static_cast<std::ptrdiff_t>(gone));
  }
  // A checkpoint syncs the log, copies it into the database and syncs that. A passive one
  // never waits, so it does the slow part; a truncating one then copies what
  // came meanwhile and empties the log, which would otherwise grow for as long as writes keep
  // coming (and be read whole at the next open).
  const bool copied = sqlite3_wal_checkpoint_v2(syncDb_, nullptr, SQLITE_CHECKPOINT_PASSIVE,
                                                nullptr, nullptr) == SQLITE_OK;
  const bool checkpointed = sqlite3_wal_checkpoint_v2(syncDb_, nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                                      nullptr, nullptr) == SQLITE_OK ||
                            copied;
  return committed && checkpointed;
}

}  // namespace quorvel::platform
