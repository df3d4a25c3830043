// Healing the outbox database: the schema checked (an older one migrated, a newer or foreign one
// taken as damage), a damaged file set aside for a fresh one holding every record still
// readable, after a second look tells damage from a passing fault, and files removed under the
// process made again with what they held.
#include "platform/posix/SqliteOutboxStore.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "platform/posix/OutboxSalvage.h"
#include "platform/posix/SqliteStatement.h"

namespace quorvel::platform {

// Reads every record still readable, sets the file aside (one kept, for whoever wants to look
// at it), and starts a fresh database holding those records. The intake files are left as
// they are: their changes are laid over the new database as over the old one.
bool SqliteOutboxStore::healLocked(std::string& reason) noexcept {
  try {
    Salvage saved;
    if (db_ != nullptr && !isDamage(sqlite3_errcode(db_)) && damage_ != SQLITE_NOTADB)
      saved = salvageRecords(db_);
    if (syncDb_ != nullptr)
      sqlite3_close_v2(std::exchange(syncDb_, nullptr));
    if (db_ != nullptr)
      sqlite3_close_v2(std::exchange(db_, nullptr));
    if (saved.records.empty() && saved.gaps.empty())
      saved = salvageFile(path_);
    // A disk too full for the copy the salvage reads: healed later, the records kept meanwhile
    // in the damaged file rather than set aside uncounted.
    if (!saved.tried) {
      reason = "no room to read the damaged " + path_ + " back";
      return false;
    }
    // The saved records are written whole under another name first, and take the damaged
    // file's place in one rename: a kill at any moment leaves them in one of the two places,
    // and an open finishes a move that a kill cut short.
    const std::string healing = path_ + kHealingSuffix;
    if (!writeFreshDatabase(healing, saved.records)) {
      reason = "cannot write the records saved from the damaged " + path_;
      return false;
    }
    std::string aside;
    const auto stamp = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
    if (!setAside(path_, stamp, aside) || ::rename(healing.c_str(), path_.c_str()) != 0) {
      reason = "cannot set the damaged " + path_ + " aside: " + std::strerror(errno);
      return false;
    }
    damage_ = 0;
    // Counted before the open: a failed open leaves the healed file, which the next try opens.
    unreadable_.fetch_add(saved.lost);
    std::string note = "Quorvel outbox: the damaged database was set aside as " + aside + "; " +
                       std::to_string(saved.records.size()) + " records saved";
    constexpr auto kNone = std::numeric_limits<std::int64_t>::min();
    constexpr auto kAll = std::numeric_limits<std::int64_t>::max();
    for (const auto& [from, to] : saved.gaps) {
      // A range SQLite could not read where the page scan found records says nothing true.
      if (std::any_of(
              saved.records.begin(), saved.records.end(),
              [from = from, to = to](const OutboxRecord& r) { return r.id > from && r.id < to; }))
        continue;
      note += from == kNone && to == kAll ? std::string("; no record could be read")
              : to == kAll    ? "; the records after " + std::to_string(from) + " could not be read"
              : from == kNone ? "; the records before " + std::to_string(to) + " could not be read"
                              : "; the records between " + std::to_string(from) + " and " +
                                    std::to_string(to) + " could not be read";
    }
    // Where the pages themselves are lost, what they held is known only from below: each
    // unreadable page held one record at least.
    if (saved.lost > 0)
      note += "; at least " + std::to_string(saved.lost) + " records lost";
    {
      const std::lock_guard lock(noteMutex_);
      healingNote_ = std::move(note);
    }
    return openDatabaseLocked(reason);
  } catch (...) {
    reason = "out of memory healing " + path_;
    return false;
  }
}

bool SqliteOutboxStore::filesInPlaceLocked() const noexcept {
  struct stat atPath {};
  return ::lstat(path_.c_str(), &atPath) == 0 && atPath.st_dev == databaseFile_.first &&
         atPath.st_ino == databaseFile_.second &&
         intake_->isAt(path_ + kIntakeSuffix + std::to_string(intakeNumber_));
}

// The removed files stay readable through their descriptors: every record they hold (the
// database's with the intake's changes over it, the counters' record included, so that no
// counter is given again) is written into the new intake in one batch, under its number, and
// moved into the new database by the next sync(). A failure keeps them in memory, and the
// next write or sync tries again.
void SqliteOutboxStore::reopenIfMoved() noexcept {
  // A watch on the removed folder hears nothing more: it ends once the locks are let go (its
  // thread may be in a call out of the store).
  std::unique_ptr<NewFileWatch> removedWatch;
  const std::lock_guard syncing(syncMutex_);
  const std::lock_guard adopting(adoptMutex_);
  // Under the locks a release takes: it closes the lock this looks at.
  if (inheritedByFork())
    return;
  const std::lock_guard lock(intakeMutex_);
  // A healing that waits has closed the database (its records cannot be carried now): it opens
  // the file at the path itself.
  if (lock_.get() < 0 || heldElsewhere_ || healPending_ || (intake_ && filesInPlaceLocked()))
    return;
  try {
    if (intake_) {
      bool failed = false;
      for (auto& record : mergedPage(std::numeric_limits<std::int64_t>::min(),
                                     std::numeric_limits<std::size_t>::max(), failed))
        carried_.push_back({record.id, std::move(record.content)});
    }
    closeFilesLocked();
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
    std::string reason;
    damage_ = 0;
    std::vector<OutboxIntake::Place> places;
    if ((openDatabaseLocked(reason) || (damage_ != 0 && healLocked(reason))) &&
        startIntakeLocked(reason) && (carried_.empty() || intake_->append(carried_, places))) {
      for (std::size_t i = 0; i < carried_.size(); ++i)
        pending_.insert_or_assign(carried_[i].id, Pending{intake_, places[i], false});
      remakeMarks();
      const std::lock_guard note(noteMutex_);
      healingNote_ = "Quorvel outbox: its files were removed under this process; made again at " +
                     path_ + " with the " + std::to_string(carried_.size()) + " records they held";
      carried_.clear();
      const std::lock_guard watching(watchMutex_);
      if (folderWatch_) {
        removedWatch = std::move(folderWatch_);
        folderWatch_ =
            NewFileWatch::start(std::filesystem::path(path_).parent_path().string(), watchCall_);
      }
      return;
    }
    closeFilesLocked();
    const std::lock_guard note(noteMutex_);
    lastError_ = "cannot make the removed " + path_ +
                 " again: " + (reason.empty() ? std::string(std::strerror(errno)) : reason);
  } catch (...) {
    closeFilesLocked();  // out of memory: what was carried so far stays for the next try
  }
}

void SqliteOutboxStore::healAfterDamage() noexcept {
  const std::lock_guard syncing(syncMutex_);
  const std::lock_guard adopting(adoptMutex_);
  const std::lock_guard lock(intakeMutex_);
  if (damage_ == 0 || db_ == nullptr)
    return;
  // A second look: SQLite's own check of the whole file. Sound, it was a passing fault.
  if (damage_ != SQLITE_NOTADB && passesQuickCheck(db_)) {
    damage_ = 0;
    return;
  }
  healOrWaitLocked();
}

// A failed healing (a full disk, a file in the way) closes the database only: the intake goes
// on taking every batch, so that nothing is less durable than before the damage was met, and
// sync() tries the healing again, less often the longer it fails.
void SqliteOutboxStore::healOrWaitLocked() noexcept {
  std::string reason;
  if (healLocked(reason)) {
    healAttempts_ = 0;
    healPending_ = false;
    return;
  }
  waitToHealLocked(reason);
}

void SqliteOutboxStore::waitToHealLocked(const std::string& reason) noexcept {
  if (syncDb_ != nullptr)
    sqlite3_close_v2(std::exchange(syncDb_, nullptr));
  if (db_ != nullptr)
    sqlite3_close_v2(std::exchange(db_, nullptr));
  // The first try again at once (what was in the way may be gone by the next sync), then
  // 1, 4, 9 ... seconds apart, a minute at most: each try reads the whole file.
  const std::uint32_t waitSeconds = std::min<std::uint32_t>(healAttempts_ * healAttempts_, 60);
  ++healAttempts_;
  nextHeal_ = std::chrono::steady_clock::now() + std::chrono::seconds(waitSeconds);
  healPending_ = true;
  try {
    const std::lock_guard note(noteMutex_);
    lastError_ = reason + "; the reports are kept in the intake file meanwhile";
  } catch (...) {
  }
}

void SqliteOutboxStore::healAgainIfDue() noexcept {
  if (!healPending_.load(std::memory_order_acquire))
    return;  // the usual case: no lock taken
  const std::lock_guard syncing(syncMutex_);
  const std::lock_guard adopting(adoptMutex_);
  const std::lock_guard lock(intakeMutex_);
  if (healAttempts_ == 0 || !intake_ || db_ != nullptr ||
      std::chrono::steady_clock::now() < nextHeal_)
    return;
  // An earlier try may have got as far as the healed file (its records saved, the damaged
  // one set aside): that file is opened, never healed again.
  if (const std::string healing = path_ + kHealingSuffix;
      ::access(path_.c_str(), F_OK) != 0 && ::access(healing.c_str(), F_OK) == 0)
    ::rename(healing.c_str(), path_.c_str());
  damage_ = 0;
  std::string reason;
  if (openDatabaseLocked(reason)) {
    // Opened is not healed: damage in the table's pages shows only to a read, or to SQLite's
    // own check.
    if (passesQuickCheck(db_)) {
      healAttempts_ = 0;
      healPending_ = false;
      return;
    }
    damage_ = SQLITE_CORRUPT;
  }
  if (damage_ == 0) {
    waitToHealLocked(reason);  // a passing fault (a full disk): tried again later
    return;
  }
  healOrWaitLocked();
}

bool SqliteOutboxStore::checkSchemaLocked(std::string& reason) noexcept {
  int version = -1;
  if (SqliteStatement v(db_, "PRAGMA user_version"); v && sqlite3_step(v.get()) == SQLITE_ROW)
    version = sqlite3_column_int(v.get(), 0);
  if (version < 0)
    return false;
  std::vector<std::string> columns;
  {
    SqliteStatement info(db_, "PRAGMA table_info(outbox)");
    if (!info)
      return false;
    int rc = SQLITE_OK;
    while ((rc = sqlite3_step(info.get())) == SQLITE_ROW) {
      const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(info.get(), 1));
      const auto* type = reinterpret_cast<const char*>(sqlite3_column_text(info.get(), 2));
      columns.push_back(std::string(name ? name : "") + " " + (type ? type : ""));
    }
    if (rc != SQLITE_DONE)
      return false;
  }
  const std::vector<std::string> known = {"id INTEGER", "content BLOB"};
  if (columns.empty() && version == 0) {
    return exec(kOutboxTable) && exec(kOutboxSchemaVersion);
  }
  if (columns == known && version == 0)
    return exec(kOutboxSchemaVersion);  // the same table, from before it was numbered
  if (columns == known && version == kOutboxVersion)
    return true;
  // A newer build's schema, or another program's file: set aside, its records saved where
  // they can be read as ours.
  damage_ = SQLITE_CORRUPT;
  reason = "unknown schema in " + path_ + " (version " + std::to_string(version) + ")";
  return false;
}

}  // namespace quorvel::platform
