// SQLite keeps the outbox: its journal survives the death of the process at any instruction,
// which a hand-written file format would have to prove again. WAL mode with synchronous=NORMAL
// makes a committed batch survive the process; sync() checkpoints, which flushes it to the
// disk itself. The checkpoint runs on a second connection of its own: a flush to a slow disk
// takes tens of milliseconds, and the writes of new reports go on meanwhile.
#include "platform/posix/SqliteOutboxStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>

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

}  // namespace

SqliteOutboxStore::SqliteOutboxStore(std::string path) : path_(std::move(path)) {}

SqliteOutboxStore::~SqliteOutboxStore() {
  close();
}

void SqliteOutboxStore::close() noexcept {
  if (syncDb_ != nullptr) {
    sqlite3_close_v2(syncDb_);
    syncDb_ = nullptr;
  }
  if (db_ != nullptr) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }
  if (lockFd_ >= 0) {
    ::close(lockFd_);  // releases the advisory lock
    lockFd_ = -1;
  }
}

bool SqliteOutboxStore::exec(const char* sql) noexcept {
  return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool SqliteOutboxStore::open(std::string& reason) noexcept {
  if (db_ != nullptr)
    return true;
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
  const std::string lockPath = path_ + ".lock";
  lockFd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lockFd_ < 0) {
    reason = "cannot open " + lockPath + ": " + std::strerror(errno);
    return false;
  }
  if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
    heldElsewhere_ = errno == EWOULDBLOCK;
    reason = "another process uses the data directory (" + lockPath + " is locked)";
    close();
    return false;
  }
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path_.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    reason = "cannot open " + path_ + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory");
    close();
    return false;
  }
  ::chmod(path_.c_str(), 0600);
  sqlite3_busy_timeout(db_, 1000);
  // No checkpoint inside a write: sync() does them, on its own connection.
  // The outbox appends and removes by number: a small page cache does (the default 2 MB
  // showed in the host's memory under a burst).
  if (!exec("PRAGMA journal_mode=WAL") || !exec("PRAGMA synchronous=NORMAL") ||
      !exec("PRAGMA wal_autocheckpoint=0") || !exec("PRAGMA cache_size=-1024") ||
      !exec("CREATE TABLE IF NOT EXISTS outbox (id INTEGER PRIMARY KEY, content BLOB NOT NULL)")) {
    reason = "cannot prepare " + path_ + ": " + sqlite3_errmsg(db_);
    close();
    return false;
  }
  if (sqlite3_open_v2(path_.c_str(), &syncDb_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                      nullptr) != SQLITE_OK) {
    reason =
        "cannot open " + path_ + " twice: " + (syncDb_ ? sqlite3_errmsg(syncDb_) : "out of memory");
    close();
    return false;
  }
  sqlite3_busy_timeout(syncDb_, 1000);
  sqlite3_exec(syncDb_, "PRAGMA cache_size=-256", nullptr, nullptr, nullptr);
  // A connection that has not read the database yet does not know its log, and its
  // checkpoints would do nothing.
  if (sqlite3_exec(syncDb_, "SELECT count(*) FROM sqlite_schema", nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    reason = "cannot read " + path_ + ": " + sqlite3_errmsg(syncDb_);
    close();
    return false;
  }
  return true;
}

bool SqliteOutboxStore::apply(const std::vector<OutboxChange>& changes) noexcept {
  if (db_ == nullptr)
    return false;
  if (!exec("BEGIN IMMEDIATE"))
    return false;
  Statement put(db_, "INSERT OR REPLACE INTO outbox (id, content) VALUES (?1, ?2)");
  Statement remove(db_, "DELETE FROM outbox WHERE id = ?1");
  bool ok = put && remove;
  for (const auto& change : changes) {
    if (!ok)
      break;
    sqlite3_stmt* const s = change.content ? put.get() : remove.get();
    sqlite3_bind_int64(s, 1, change.id);
    if (change.content) {
      sqlite3_bind_blob64(s, 2, change.content->data(), change.content->size(), SQLITE_STATIC);
    }
    ok = sqlite3_step(s) == SQLITE_DONE;
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
  }
  if (!ok) {
    exec("ROLLBACK");
    return false;
  }
  return exec("COMMIT");
}

std::vector<OutboxRecord> SqliteOutboxStore::load(std::int64_t afterId,
                                                  std::size_t limit) noexcept {
  std::vector<OutboxRecord> records;
  if (db_ == nullptr)
    return records;
  try {
    Statement all(db_, "SELECT id, content FROM outbox WHERE id > ?1 ORDER BY id LIMIT ?2");
    if (all) {
      sqlite3_bind_int64(all.get(), 1, afterId);
      sqlite3_bind_int64(all.get(), 2,
                         static_cast<sqlite3_int64>(std::min<std::size_t>(limit, INT64_MAX)));
    }
    while (all && sqlite3_step(all.get()) == SQLITE_ROW) {
      OutboxRecord r;
      r.id = sqlite3_column_int64(all.get(), 0);
      const auto* data = static_cast<const char*>(sqlite3_column_blob(all.get(), 1));
      r.content.assign(data != nullptr ? data : "",
                       static_cast<std::size_t>(sqlite3_column_bytes(all.get(), 1)));
      records.push_back(std::move(r));
    }
  } catch (...) {
    // Out of memory: what was read so far.
  }
  return records;
}

std::int64_t SqliteOutboxStore::highestId() noexcept {
  if (db_ == nullptr)
    return -1;
  Statement highest(db_, "SELECT max(id) FROM outbox");
  if (!highest || sqlite3_step(highest.get()) != SQLITE_ROW ||
      sqlite3_column_type(highest.get(), 0) == SQLITE_NULL)
    return -1;
  return sqlite3_column_int64(highest.get(), 0);
}

bool SqliteOutboxStore::sync() noexcept {
  const std::lock_guard lock(syncMutex_);
  if (syncDb_ == nullptr)
    return false;
  // A checkpoint syncs the log, copies it into the database and syncs that. A passive one
  // never waits for the writer, so it does the slow part; a truncating one then copies what
  // came meanwhile, holding the writer back only for that, and empties the log, which would
  // otherwise grow for as long as writes keep coming (and be read whole at the next open).
  const bool copied = sqlite3_wal_checkpoint_v2(syncDb_, nullptr, SQLITE_CHECKPOINT_PASSIVE,
                                                nullptr, nullptr) == SQLITE_OK;
  return sqlite3_wal_checkpoint_v2(syncDb_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr,
                                   nullptr) == SQLITE_OK ||
         copied;
}

bool SqliteOutboxStore::destroy() noexcept {
  const std::lock_guard lock(syncMutex_);
  // The lock is held until the files are gone, so that no other process opens them halfway.
  const int heldLock = lockFd_;
  lockFd_ = -1;
  close();
  bool removed = true;
  // The log first: a log left without its database would be read into a new one.
  for (const char* suffix : {"-wal", "-shm", "", ".lock"}) {
    const std::string file = path_ + suffix;
    removed = (::unlink(file.c_str()) == 0 || errno == ENOENT) && removed;
  }
  if (heldLock >= 0)
    ::close(heldLock);
  heldElsewhere_ = false;
  return removed;
}

}  // namespace quorvel::platform
