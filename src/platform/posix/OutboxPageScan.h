// Reading the outbox's records straight from the pages of a damaged database file, without
// SQLite's B-tree: a damaged root or interior page hides every leaf below it from a seek, but
// the leaves themselves are still whole. Owns the file format's parsing (header, freelist,
// write-ahead log frames, table-leaf cells, overflow chains) and nothing else.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <quorvel/platform/OutboxStore.h>

namespace quorvel::platform {

struct PageScan {
  // False when the pages in use cannot be told from the free ones (the freelist or the
  // database's size cannot be read): the records found are then not to be used, since a freed
  // page still holds records that were answered and removed.
  bool trusted = false;
  std::vector<OutboxRecord> records;  // by number, one per number
  // Numbers whose cell is in use but whose content cannot be read whole (an overflow page
  // overwritten): SQLite may still hand such content back, wrong.
  std::set<std::int64_t> damaged;
  std::uint64_t leaves = 0;           // table-leaf pages read
  std::uint64_t unreadablePages = 0;  // in use, but neither a page of the table nor free
  std::uint64_t missingPages = 0;     // named by the database's size, beyond the file's end
};

// Every record on the table-leaf pages in use in the database at `path`, as its committed
// write-ahead log (`path` + "-wal") shows them: pages on the freelist, past the database's
// size, and cells no longer in a page's cell-pointer array are never read. Records in
// `readAlready` (by number) are found with an empty content: whose copy wins is the caller's
// choice, and a large salvage is not held twice.
PageScan scanPages(const std::string& path, const std::vector<OutboxRecord>& readAlready = {});

struct Salvage;

// Completes a salvage with what the page scan finds that seeking missed (below a damaged
// interior page), drops what it read from overwritten overflow pages, and estimates what was
// lost from the pages that could not be read. False when the pages could not be told apart
// (see PageScan::trusted): the salvage is then left as it was.
bool completeFromPages(const std::string& path, Salvage& salvage);

}  // namespace quorvel::platform
