// SqliteStatement: a prepared SQLite statement, finalised on every path out of its scope, the
// reading of an outbox record from a row of (id, content), and the outbox table's schema.
#pragma once

#include <sqlite3.h>

#include <cstddef>

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

}  // namespace quorvel::platform
