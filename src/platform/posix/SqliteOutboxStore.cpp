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
#include "platform/posix/SqliteOutboxStore.h"

#include "platform/posix/OutboxSalvage.h"

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

// Finalises a statement on every path out of a scope.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) noexcept {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK)
      stmt_ = nullptr;
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  sqlite3_stmt* get() const noexcept { return stmt_; }
  explicit operator bool() const noexcept { return stmt_ != nullptr; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

// One batch of changes, all or nothing: rolled back unless committed.
class Transaction {
 public:
  explicit Transaction(sqlite3* db) noexcept
      : db_(db),
        begun_(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK),
        put_(db, "INSERT OR REPLACE INTO outbox (id, content) VALUES (?1, ?2)"),
        remove_(db, "DELETE FROM outbox WHERE id = ?1") {}
  ~Transaction() {
    if (begun_ && !committed_)
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  bool ok() const noexcept { return begun_ && put_ && remove_; }
  // `content` null removes the record.
  bool change(std::int64_t id, const std::string* content) noexcept {
    sqlite3_stmt* const s = content ? put_.get() : remove_.get();
    sqlite3_bind_int64(s, 1, id);
    if (content)
      sqlite3_bind_blob64(s, 2, content->data(), content->size(), SQLITE_STATIC);
    const bool done = sqlite3_step(s) == SQLITE_DONE;
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
    return done;
  }
  bool commit() noexcept {
    committed_ = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    return committed_;
  }

 private:
  sqlite3* db_;
  bool begun_;
  bool committed_ = false;
  Statement put_;
  Statement remove_;
};

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

constexpr const char* kIntakeSuffix = ".intake-";
constexpr const char* kGuestSuffix = ".guest-";
constexpr const char* kHealingSuffix = ".healing";
// The schema this build writes: `user_version` 1 is the outbox table of (id, content). A
// database of version 0 with that table is the same schema from before it was numbered.
constexpr int kSchemaVersion = 1;

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
  intake_.reset();
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
  lock_.reset();  // releases the advisory lock
}

// In a child made by fork() the parent's descriptors are closed already; its connections are
// not closed (SQLite must not touch a connection across a fork: closing one may checkpoint
// the parent's log) but let go, a leak of the child's only. No lock is taken: a thread of the
// parent may have held one at the fork.
bool SqliteOutboxStore::inheritedByFork() noexcept {
  inherited_ = inherited_ || lock_.closedByFork();
  return inherited_;
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

bool SqliteOutboxStore::exec(const char* sql) noexcept {
  return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool SqliteOutboxStore::open(std::string& reason) noexcept {
  if (inheritedByFork()) {
    close();
    reason = "a child made by fork() cannot use its parent's outbox: it makes its own";
    return false;
  }
  if (lock_.get() >= 0)
    return true;  // open already
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
    // A healing that a kill cut short between its two renames: the saved records take the
    // place the damaged file left.
    if (const std::string healing = path_ + kHealingSuffix;
        ::access(path_.c_str(), F_OK) != 0 && ::access(healing.c_str(), F_OK) == 0)
      ::rename(healing.c_str(), path_.c_str());
    bool opened = openDatabaseLocked(reason);
    if (!opened && damage_ != 0)
      opened = healLocked(reason);
    if (opened && startIntakeLocked(reason))
      return true;
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
    if (!openDatabaseLocked(reason))
      return false;
    unreadable_.fetch_add(saved.lost);
    std::string note = "Quorvel outbox: the damaged database was set aside as " + aside + "; " +
                       std::to_string(saved.records.size()) + " records saved";
    for (const auto& [from, to] : saved.gaps)
      note += "; the records between " + std::to_string(from) + " and " + std::to_string(to) +
              " could not be read";
    const std::lock_guard lock(noteMutex_);
    healingNote_ = std::move(note);
    return true;
  } catch (...) {
    reason = "out of memory healing " + path_;
    return false;
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
  std::string reason;
  if (!healLocked(reason)) {
    const std::lock_guard note(noteMutex_);
    lastError_ = reason;
    closeLocked();  // no store now: the library keeps what comes in memory and tries again
  }
}

bool SqliteOutboxStore::openDatabaseLocked(std::string& reason) noexcept {
  // A link in the database's place is refused, as for the lock file: the store writes, and
  // changes the mode of, its own file only. (SQLite's own no-follow flag would also refuse a
  // linked folder above it, which a data directory may well be.)
  if (struct stat st{}; ::lstat(path_.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    reason = "cannot open " + path_ + ": it is a symbolic link";
    return false;
  }
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path_.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    noteFailureLocked(db_, "cannot open");
    reason = "cannot open " + path_ + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory");
    return false;
  }
  keepPrivate(path_);
  sqlite3_busy_timeout(db_, 1000);
  // No checkpoint inside a write: sync() does them, on its own connection.
  // The outbox appends and removes by number: a small page cache does (the default 2 MB
  // showed in the host's memory under a burst).
  if (!exec("PRAGMA journal_mode=WAL") || !exec("PRAGMA synchronous=NORMAL") ||
      !exec("PRAGMA wal_autocheckpoint=0") || !exec("PRAGMA cache_size=-1024") ||
      !checkSchemaLocked(reason)) {
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

bool SqliteOutboxStore::checkSchemaLocked(std::string& reason) noexcept {
  int version = -1;
  if (Statement v(db_, "PRAGMA user_version"); v && sqlite3_step(v.get()) == SQLITE_ROW)
    version = sqlite3_column_int(v.get(), 0);
  if (version < 0)
    return false;
  std::vector<std::string> columns;
  {
    Statement info(db_, "PRAGMA table_info(outbox)");
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
    return exec(
               "CREATE TABLE IF NOT EXISTS outbox (id INTEGER PRIMARY KEY, content BLOB NOT "
               "NULL)") &&
           exec("PRAGMA user_version=1");
  }
  if (columns == known && version == 0)
    return exec("PRAGMA user_version=1");  // the same table, from before it was numbered
  if (columns == known && version == kSchemaVersion)
    return true;
  // A newer build's schema, or another program's file: set aside, its records saved where
  // they can be read as ours.
  damage_ = SQLITE_CORRUPT;
  reason = "unknown schema in " + path_ + " (version " + std::to_string(version) + ")";
  return false;
}

std::vector<std::pair<std::uint64_t, std::string>> SqliteOutboxStore::intakeFiles() const {
  const std::filesystem::path database(path_);
  const std::string prefix = database.filename().string() + kIntakeSuffix;
  std::vector<std::pair<std::uint64_t, std::string>> files;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(database.parent_path(), ec), end; !ec && it != end;
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0 ||
        name.find_first_not_of("0123456789", prefix.size()) != std::string::npos ||
        name.size() - prefix.size() > 18)
      continue;
    files.emplace_back(std::stoull(name.substr(prefix.size())), it->path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Only the names of the intake files an earlier process left, and the database's highest
// number, are read at open: enough to number this process's records above theirs. Reading the
// files (megabytes after a kill in a burst) waits for the first read or sync().
bool SqliteOutboxStore::startIntakeLocked(std::string& reason) {
  constexpr int kIdShift = 32;
  toAdopt_ = intakeFiles();
  adopted_ = toAdopt_.empty();
  std::int64_t inDatabase = -1;
  if (Statement newest(db_, "SELECT max(id) FROM outbox");
      newest && sqlite3_step(newest.get()) == SQLITE_ROW &&
      sqlite3_column_type(newest.get(), 0) != SQLITE_NULL) {
    inDatabase = sqlite3_column_int64(newest.get(), 0);
  }
  const std::uint64_t onDisk = toAdopt_.empty() ? 0 : toAdopt_.back().first;
  const std::uint64_t fromDatabase =
      inDatabase > 0 ? static_cast<std::uint64_t>(inDatabase) >> kIdShift : 0;
  intakeNumber_ = std::max(onDisk, fromDatabase) + 1;
  // Far beyond any real use (one number a second of writing, for decades); past it the floor
  // is read from the records instead.
  constexpr std::uint64_t kLastNumber = std::uint64_t{1} << 30;
  idFloor_ = intakeNumber_ < kLastNumber ? static_cast<std::int64_t>(intakeNumber_ << kIdShift) : 0;
  intake_ = OutboxIntake::create(path_ + kIntakeSuffix + std::to_string(intakeNumber_), reason);
  return intake_ != nullptr;
}

// An earlier process's changes are laid over the database in the order they were made, and
// moved into it by the first sync(), on its own thread. Should this process die first, the
// next one finds the same files and does the same, which is harmless: each change sets or
// removes a record by its number.
void SqliteOutboxStore::adoptLeftIntakes() noexcept {
  if (adopted_.load(std::memory_order_acquire))
    return;
  const std::lock_guard adopting(adoptMutex_);
  if (adopted_.load())
    return;
  try {
    PendingMap left;
    std::vector<std::string> files;
    std::vector<OutboxIntake::Entry> entries;
    for (const auto& [number, file] : toAdopt_) {
      entries.clear();
      const auto intake = OutboxIntake::adopt(file, entries);
      if (!intake)
        continue;  // unreadable now: it stays on the disk for a later start
      for (const auto& entry : entries)
        left.insert_or_assign(entry.id, Pending{intake, entry.place, entry.removed});
      files.push_back(file);
    }
    const std::lock_guard lock(intakeMutex_);
    if (intake_) {
      // No sync() ran yet (each one adopts first): `committing_` is empty, and this
      // process's changes, all newer, are in `pending_`, laid over these.
      committing_ = std::move(left);
      retired_.insert(retired_.begin(), files.begin(), files.end());
    }
    toAdopt_.clear();
    adopted_ = true;
  } catch (...) {
    // Out of memory: the next read or sync() tries again.
  }
}

bool SqliteOutboxStore::apply(const std::vector<OutboxChange>& changes) noexcept {
  const std::lock_guard lock(intakeMutex_);
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

std::vector<OutboxRecord> SqliteOutboxStore::databasePage(std::int64_t afterId, std::size_t limit) {
  std::vector<OutboxRecord> records;
  Statement page(db_, "SELECT id, content FROM outbox WHERE id > ?1 ORDER BY id LIMIT ?2");
  if (!page)
    return records;
  sqlite3_bind_int64(page.get(), 1, afterId);
  sqlite3_bind_int64(page.get(), 2,
                     static_cast<sqlite3_int64>(std::min<std::size_t>(limit, INT64_MAX)));
  int rc = SQLITE_OK;
  while ((rc = sqlite3_step(page.get())) == SQLITE_ROW) {
    OutboxRecord r;
    r.id = sqlite3_column_int64(page.get(), 0);
    const auto* data = static_cast<const char*>(sqlite3_column_blob(page.get(), 1));
    r.content.assign(data != nullptr ? data : "",
                     static_cast<std::size_t>(sqlite3_column_bytes(page.get(), 1)));
    records.push_back(std::move(r));
  }
  // An error is never the end of the data: damage is healed and the page read again.
  if (rc != SQLITE_DONE)
    noteFailureLocked(db_, "cannot read");
  return records;
}

// The database's pages with the intake's changes laid over them. sync() may commit some of
// those changes meanwhile (its transaction runs without the intake's lock), and laying a
// change over a database that already has it changes nothing.
std::vector<OutboxRecord> SqliteOutboxStore::mergedPage(std::int64_t afterId, std::size_t limit) {
  std::map<std::int64_t, std::string> merged;
  std::map<std::int64_t, const Pending*> fromIntake;
  for (std::int64_t cursor = afterId; merged.size() + fromIntake.size() < limit;) {
    auto page = databasePage(cursor, limit);
    const bool full = page.size() == limit;
    // A full page says nothing of the numbers past its last: those wait for the next round.
    const std::int64_t through = full ? page.back().id : std::numeric_limits<std::int64_t>::max();
    for (auto& record : page)
      merged.insert_or_assign(record.id, std::move(record.content));
    // The older changes first, so that the newer one of a number wins.
    for (const auto* changes : {&committing_, &pending_}) {
      for (auto it = changes->upper_bound(cursor); it != changes->end() && it->first <= through;
           ++it) {
        merged.erase(it->first);
        if (it->second.removed)
          fromIntake.erase(it->first);
        else
          fromIntake.insert_or_assign(it->first, &it->second);
      }
    }
    if (!full)
      break;
    cursor = through;
  }
  std::vector<OutboxRecord> records;
  auto a = merged.begin();
  auto b = fromIntake.begin();
  while (records.size() < limit && (a != merged.end() || b != fromIntake.end())) {
    if (b == fromIntake.end() || (a != merged.end() && a->first < b->first)) {
      records.push_back({a->first, std::move(a->second)});
      ++a;
    } else {
      OutboxRecord r{b->first, {}};
      if (b->second->file->readAt(b->second->place, r.content))
        records.push_back(std::move(r));
      ++b;
    }
  }
  return records;
}

std::vector<OutboxRecord> SqliteOutboxStore::load(std::int64_t afterId,
                                                  std::size_t limit) noexcept {
  adoptLeftIntakes();
  try {
    for (int attempt = 0;; ++attempt) {
      {
        const std::lock_guard lock(intakeMutex_);
        if (db_ == nullptr || limit == 0)
          return {};
        damage_ = 0;
        auto page = mergedPage(afterId, limit);
        if (damage_ == 0 || attempt > 0)
          return page;
      }
      healAfterDamage();
    }
  } catch (...) {
    return {};  // out of memory
  }
}

std::int64_t SqliteOutboxStore::idFloor() noexcept {
  {
    const std::lock_guard lock(intakeMutex_);
    if (db_ == nullptr)
      return 0;
    if (idFloor_ > 0)
      return idFloor_;
  }
  return highestId() + 1;
}

std::int64_t SqliteOutboxStore::highestId() noexcept {
  adoptLeftIntakes();
  const std::lock_guard lock(intakeMutex_);
  if (db_ == nullptr)
    return -1;
  // The newest change of each number counts: the intake's over the database's.
  const auto latest = [this](std::int64_t id) -> const Pending* {
    if (const auto it = pending_.find(id); it != pending_.end())
      return &it->second;
    const auto it = committing_.find(id);
    return it != committing_.end() ? &it->second : nullptr;
  };
  std::int64_t highest = -1;
  for (const auto* changes : {&committing_, &pending_}) {
    for (auto it = changes->rbegin(); it != changes->rend() && it->first > highest; ++it) {
      if (!latest(it->first)->removed) {
        highest = it->first;
        break;
      }
    }
  }
  Statement newest(db_, "SELECT id FROM outbox WHERE id > ?1 ORDER BY id DESC");
  if (!newest)
    return highest;
  sqlite3_bind_int64(newest.get(), 1, highest);
  while (sqlite3_step(newest.get()) == SQLITE_ROW) {
    const std::int64_t id = sqlite3_column_int64(newest.get(), 0);
    if (const auto* change = latest(id); change == nullptr || !change->removed)
      return id;
  }
  return highest;
}

// Each sync() starts a new intake file, so that the current one can go whole once what it
// holds is in the database.
void SqliteOutboxStore::rotateIntakeLocked() noexcept {
  std::string reason;
  const std::string current = path_ + kIntakeSuffix + std::to_string(intakeNumber_);
  auto fresh =
      OutboxIntake::create(path_ + kIntakeSuffix + std::to_string(intakeNumber_ + 1), reason);
  if (!fresh)
    return;  // the current one goes on growing until a later sync
  try {
    retired_.push_back(current);
  } catch (...) {
    return;
  }
  intake_ = std::move(fresh);
  ++intakeNumber_;
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
      for (auto& [id, change] : pending_)
        committing_.insert_or_assign(id, std::move(change));
      pending_.clear();
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
    for (const auto& file : covered)
      ::unlink(file.c_str());
    retired_.erase(retired_.begin(),
                   retired_.begin() + static_cast<std::ptrdiff_t>(covered.size()));
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

// A guest's records go to a file of its own: the holder takes a whole file at a time under its
// lock and removes it, and a guest that finds its file removed starts another, so that no
// record is written into a file already taken.
bool SqliteOutboxStore::appendAsGuest(const std::vector<OutboxChange>& changes) noexcept {
  try {
    const std::lock_guard lock(guestMutex_);
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (!guest_) {
        std::string reason;
        const std::string name = path_ + kGuestSuffix + std::to_string(::getpid()) + "-" +
                                 std::to_string(++guestNumber_);
        guest_ = OutboxIntake::create(name, reason);
        if (!guest_)
          return false;
      }
      if (!guest_->lock())
        return false;
      if (guest_->removed()) {
        guest_->unlock();
        guest_.reset();
        continue;
      }
      std::vector<OutboxIntake::Place> places;
      const bool written = guest_->append(changes, places);
      guest_->unlock();
      return written;
    }
  } catch (...) {
  }
  return false;
}

std::size_t SqliteOutboxStore::adoptGuests(
    const std::function<bool(std::vector<OutboxRecord>)>& keep) noexcept {
  std::size_t taken = 0;
  try {
    const std::filesystem::path database(path_);
    const std::string prefix = database.filename().string() + kGuestSuffix;
    std::vector<std::string> files;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(database.parent_path(), ec), end; !ec && it != end;
         it.increment(ec)) {
      if (it->path().filename().string().starts_with(prefix))
        files.push_back(it->path().string());
    }
    for (const auto& file : files) {
      std::vector<OutboxIntake::Entry> entries;
      const auto guest = OutboxIntake::adopt(file, entries);
      if (!guest || !guest->lock())
        continue;
      entries.clear();
      const auto locked = OutboxIntake::adopt(file, entries);  // read again under the lock
      std::map<std::int64_t, OutboxIntake::Entry> latest;
      for (const auto& entry : entries)
        latest.insert_or_assign(entry.id, entry);
      std::vector<OutboxRecord> records;
      for (const auto& [id, entry] : latest) {
        OutboxRecord record{id, {}};
        if (!entry.removed && locked && locked->readAt(entry.place, record.content))
          records.push_back(std::move(record));
      }
      if (!guest->removed() && keep(std::move(records))) {
        ::unlink(file.c_str());
        ++taken;
      }
      guest->unlock();
    }
  } catch (...) {
  }
  return taken;
}

bool SqliteOutboxStore::removeGuests() {
  const std::filesystem::path database(path_);
  const std::string prefix = database.filename().string() + kGuestSuffix;
  std::vector<std::string> files;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(database.parent_path(), ec), end; !ec && it != end;
       it.increment(ec)) {
    if (it->path().filename().string().starts_with(prefix))
      files.push_back(it->path().string());
  }
  bool removed = true;
  for (const auto& file : files) {
    std::vector<OutboxIntake::Entry> entries;
    const auto guest = OutboxIntake::adopt(file, entries);
    if (!guest)
      continue;
    // Without waiting: the holder may be this process's own taking of the file, which waits
    // for the outbox that this forgetting holds. A file held now is left to the next start.
    if (!guest->tryLock()) {
      removed = false;
      continue;
    }
    removed = (::unlink(file.c_str()) == 0 || errno == ENOENT) && removed;
    guest->unlock();
  }
  return removed;
}

bool SqliteOutboxStore::destroy() noexcept {
  if (inheritedByFork())
    return false;  // the parent's files
  const std::lock_guard lock(syncMutex_);
  // The lock is held until the files are gone, so that no other process opens them halfway.
  ParentOnlyDescriptor heldLock = std::move(lock_);
  close();
  // The intake and the log first: either, left without its database, would be read into a
  // new one.
  bool removed = true;
  try {
    for (const auto& [number, file] : intakeFiles())
      removed = (::unlink(file.c_str()) == 0 || errno == ENOENT) && removed;
    // What other processes kept for this one goes with it.
    removed = removeGuests() && removed;
  } catch (...) {
    removed = false;
  }
  // A damaged file set aside, or one being healed, holds reports too.
  try {
    const std::filesystem::path database(path_);
    const std::string name = database.filename().string();
    std::error_code ec;
    std::vector<std::filesystem::path> kept;
    for (std::filesystem::directory_iterator it(database.parent_path(), ec), end; !ec && it != end;
         it.increment(ec)) {
      const std::string file = it->path().filename().string();
      if (file.starts_with(name + ".corrupt-") || file.starts_with(name + kHealingSuffix))
        kept.push_back(it->path());
    }
    for (const auto& file : kept)
      removed = (::unlink(file.c_str()) == 0 || errno == ENOENT) && removed;
  } catch (...) {
    removed = false;
  }
  for (const char* suffix : {"-wal", "-shm", "", ".lock"}) {
    const std::string file = path_ + suffix;
    removed = (::unlink(file.c_str()) == 0 || errno == ENOENT) && removed;
  }
  heldLock.reset();
  heldElsewhere_ = false;
  return removed;
}

}  // namespace quorvel::platform
