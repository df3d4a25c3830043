// A database whose table root is overwritten hides every leaf from SQLite's seeks; healing
// reads the leaves themselves: every record on an intact leaf comes back, with the newest
// content the write-ahead log holds, and no record that was removed (freed pages, dropped cells,
// changes of the log) comes back to be sent twice.
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "platform/posix/OutboxSalvage.h"
#include "platform/posix/SqliteOutboxStore.h"
#include "support/TempDir.h"

namespace quorvel::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kRows = 600;
constexpr std::int64_t kAnsweredBelow = 150;  // removed, their leaves freed
constexpr std::int64_t kLarge = 300;          // spills over two overflow pages

std::string contentOf(std::int64_t id, char fill) {
  return "record " + std::to_string(id) + std::string(id == kLarge ? 9000 : 1200, fill);
}

bool answered(std::int64_t id) {
  return id <= kAnsweredBelow || id % 7 == 0;
}

void runSql(sqlite3* db, const std::string& sql) {
  ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(db);
}

void put(sqlite3* db, const char* sql, std::int64_t id, const std::string& content) {
  sqlite3_stmt* stmt = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr), SQLITE_OK);
  sqlite3_bind_int64(stmt, 1, id);
  sqlite3_bind_blob(stmt, 2, content.data(), static_cast<int>(content.size()), SQLITE_STATIC);
  EXPECT_EQ(sqlite3_step(stmt), SQLITE_DONE);
  sqlite3_finalize(stmt);
}

// The database and its log as a kill leaves them: the answered records removed and the file
// checkpointed (freed pages and dropped cells still hold them where deletion does not zero
// them), then a few records rewritten in
// the log only. Returns what the outbox holds.
std::map<std::int64_t, std::string> writeKilledDatabase(const std::string& file) {
  std::map<std::int64_t, std::string> expected;
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  runSql(db,
         "PRAGMA secure_delete=OFF; PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0; PRAGMA "
         "user_version=1;"
         "CREATE TABLE outbox (id INTEGER PRIMARY KEY, content BLOB NOT NULL); BEGIN");
  for (std::int64_t id = 1; id <= kRows; ++id)
    put(db, "INSERT INTO outbox VALUES (?1, ?2)", id, contentOf(id, '.'));
  // Removed one by one, the answered rows leave their cells behind the pointer arrays; a
  // table dropped whole leaves its leaves intact on the freelist.
  runSql(db, "COMMIT; DELETE FROM outbox WHERE id <= " + std::to_string(kAnsweredBelow) +
                 " OR id % 7 = 0; CREATE TABLE spare (id INTEGER PRIMARY KEY, content BLOB);"
                 "BEGIN");
  for (std::int64_t id = 1; id <= kAnsweredBelow; ++id)
    put(db, "INSERT INTO spare VALUES (?1, ?2)", id, contentOf(id, '.'));
  runSql(db, "COMMIT; DROP TABLE spare; PRAGMA wal_checkpoint(TRUNCATE); BEGIN");
  for (std::int64_t id = kAnsweredBelow + 1; id <= kRows; ++id) {
    if (answered(id))
      continue;
    // Same length, so that only leaves change: the root is not in the log.
    const bool rewritten = id > 500 && id < 520;
    expected[id] = contentOf(id, rewritten ? '+' : '.');
    if (rewritten)
      put(db, "UPDATE outbox SET content = ?2 WHERE id = ?1", id, expected[id]);
  }
  runSql(db, "COMMIT");
  for (const char* suffix : {"", "-wal"})
    fs::copy_file(file + suffix, file + ".killed" + suffix);
  sqlite3_close(db);
  for (const char* suffix : {"", "-wal"})
    fs::rename(file + ".killed" + suffix, file + suffix);
  fs::remove(file + "-shm");
  return expected;
}

TEST(OutboxPageScanTest, ARootPageOverwrittenKeepsEveryIntactLeafAndBringsBackNoRemovedRecord) {
  test::TempDir dir;
  fs::create_directories(dir / "Library");
  const std::string file = dir / "Library/QuorvelOutbox.sqlite";
  const auto expected = writeKilledDatabase(file);
  {
    std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(4096);  // page 2: the table's root, an interior page above every leaf
    f.write(std::string(4096, '\x5a').data(), 4096);
  }

  SqliteOutboxStore store(file);
  std::string reason;
  ASSERT_TRUE(store.open(reason)) << reason;
  std::map<std::int64_t, std::string> saved;
  for (auto& record : store.load(-1, SIZE_MAX))
    saved[record.id] = std::move(record.content);
  EXPECT_NE(store.takeHealingNote().find("set aside"), std::string::npos);
  EXPECT_EQ(saved.size(), expected.size());
  for (const auto& [id, content] : saved) {
    EXPECT_FALSE(answered(id)) << id << " was removed and came back";
    const auto it = expected.find(id);
    EXPECT_TRUE(it != expected.end() && it->second == content) << id << " is not as written";
  }
  EXPECT_GT(store.unreadableRecords(), 0U);  // the root held no record, but it was unreadable
}

// What SQLite read wins over the pages' copy, in numbers' order, the later of two reads of one
// number kept (a damaged interior page can mislead SQLite's order), and the pages add the rest.
TEST(OutboxPageScanTest, WhatSqliteReadIsMergedInOrderWithThePagesRecords) {
  test::TempDir dir;
  const std::string file = dir / "QuorvelOutbox.sqlite";
  auto expected = writeKilledDatabase(file);
  Salvage salvage;
  salvage.records = {{200, "first read"}, {151, "read"}, {200, "read again"}};
  ASSERT_TRUE(completeFromPages(file, salvage));
  expected[151] = "read";
  expected[200] = "read again";
  std::map<std::int64_t, std::string> saved;
  for (std::size_t i = 0; i < salvage.records.size(); ++i) {
    EXPECT_TRUE(i == 0 || salvage.records[i - 1].id < salvage.records[i].id);
    saved[salvage.records[i].id] = salvage.records[i].content;
  }
  EXPECT_EQ(saved, expected);
}

}  // namespace
}  // namespace quorvel::platform
