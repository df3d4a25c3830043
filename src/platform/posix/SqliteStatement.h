// SqliteStatement: a prepared SQLite statement, finalised on every path out of its scope, the
// reading of an outbox record from a row of (id, content), the outbox table's schema, and a
// transaction of changes to that table.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include <quorvel/platform/OutboxStore.h>

namespace quorvel::platform {

// The schema this build writes: `user_version` 1 is the outbox table of (id, content). A
// database of version 0 with that table is the same schema from before it was numbered.
inline constexpr int kOutboxVersion = 1;
inline constexpr const char* kOutboxSchemaVersion = "PRAGMA user_version=1";
inline constexpr const char* kOutboxTable =
    "CREATE TABLE IF NOT EXISTS outbox (id INTEGER PRIMARY KEY, content BLOB NOT NULL)";

class SqliteStatement {
 public:
  // A statement that fails to prepare is null: test it before use.
  SqliteStatement(sqlite3* db, const char* sql) noexcept {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK)
      stmt_ = nullptr;
  }
  ~SqliteStatement() { sqlite3_finalize(stmt_); }
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;
  sqlite3_stmt* get() const noexcept { return stmt_; }
  explicit operator bool() const noexcept { return stmt_ != nullptr; }

  // The record of the current row, whose columns are (id, content).
  OutboxRecord record() const {
    OutboxRecord out;
    out.id = sqlite3_column_int64(stmt_, 0);
    const auto* data = static_cast<const char*>(sqlite3_column_blob(stmt_, 1));
    out.content.assign(data != nullptr ? data : "",
                       static_cast<std::size_t>(sqlite3_column_bytes(stmt_, 1)));
    return out;
  }

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
  SqliteStatement put_;
  SqliteStatement remove_;
};

}  // namespace quorvel::platform
