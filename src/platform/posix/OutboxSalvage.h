// Healing a damaged outbox database: what counts as damage (and not a passing fault), setting
// the file aside, and reading back every record that can still be read from it. Also the
// listing of the files kept beside the database.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <quorvel/platform/OutboxStore.h>

struct sqlite3;

namespace quorvel::platform {

// SQLITE_CORRUPT and SQLITE_NOTADB: the file itself is damaged. A full disk, a busy lock or an
// I/O error are not: they pass, and a database is never set aside for them.
bool isDamage(int sqliteCode) noexcept;

// True when SQLite's own check finds the database sound (a damage report was a passing
// fault read as one): it is then kept as it is.
bool passesQuickCheck(sqlite3* db) noexcept;

struct Salvage {
  std::vector<OutboxRecord> records;  // every record read back, by number
  // Records known or estimated to be lost: the numbers skipped over a damaged page within
  // one process's range (each process numbers its records one after another).
  std::uint64_t lost = 0;
  std::vector<std::pair<std::int64_t, std::int64_t>> gaps;  // unreadable ranges, for the log
  // False when the file could not be read at all for now (no room for the copy a salvage
  // reads): its records are unknown, not lost, and the file must stay where it is.
  bool tried = true;
};

// Reads the outbox table of `db` one record after another; a damaged page is stepped over by
// seeking past it, so that the records after it are read too.
Salvage salvageRecords(sqlite3* db);

// Reads the records of the database at `path`, which cannot be opened as it is. Its header's
// fixed part (the format's name, the page size and the format numbers the outbox always
// uses) is written over a copy of it first: a damaged header then no longer hides the pages.
Salvage salvageFile(const std::string& path);

// Completes a salvage with what a scan of the file's pages finds that seeking missed (below a
// damaged interior page), drops what it read from overwritten overflow pages, and estimates
// what was lost from the pages that could not be read. False when the pages in use could not
// be told from the free ones: the salvage is then left as it was.
bool completeFromPages(const std::string& path, Salvage& salvage);

// The page size (in bytes) that the header of the write-ahead log at `log` names; none without a
// log whose header reads as one.
std::optional<std::uint32_t> logPageSize(const std::string& log);

// Writes `records` into a new database at `file` (replacing any), schema and all, so that it
// can take a damaged one's place in one rename. False when it cannot.
bool writeFreshDatabase(const std::string& file, const std::vector<OutboxRecord>& records);

// Renames `path` (and its write-ahead log) to `path` + ".corrupt-" + `stamp`, after removing
// any file an earlier setting-aside left: at most one is kept. False when the rename fails.
bool setAside(const std::string& path, std::int64_t stamp, std::string& asideName);

// The files in the folder of `path` whose names are its own followed by `suffix` and anything
// after it; what was listed before a listing error.
std::vector<std::string> filesBeside(const std::string& path, std::string_view suffix);
// Those of them whose names end in a number of at most `maxDigits` decimal digits after
// `suffix`, with their numbers.
std::vector<std::pair<std::uint64_t, std::string>> numberedBeside(const std::string& path,
                                                                  std::string_view suffix,
                                                                  std::size_t maxDigits);

}  // namespace quorvel::platform
