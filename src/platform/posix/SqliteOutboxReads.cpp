// Reading the outbox: a page of records is the database's with the intake's changes laid over
// it, and a page cut short by a passing fault says so; the highest number and the floor for a
// process's own numbers come from the same two places.
#include "platform/posix/SqliteOutboxStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>

#include "platform/posix/SqliteStatement.h"

namespace quorvel::platform {

std::vector<OutboxRecord> SqliteOutboxStore::databasePage(std::int64_t afterId, std::size_t limit,
                                                          bool& failed) {
  std::vector<OutboxRecord> records;
  SqliteStatement page(db_, "SELECT id, content FROM outbox WHERE id > ?1 ORDER BY id LIMIT ?2");
  if (!page) {
    noteFailureLocked(db_, "cannot read");
    failed = true;
    return records;
  }
  sqlite3_bind_int64(page.get(), 1, afterId);
  sqlite3_bind_int64(page.get(), 2,
                     static_cast<sqlite3_int64>(std::min<std::size_t>(limit, INT64_MAX)));
  int rc = SQLITE_OK;
  while ((rc = sqlite3_step(page.get())) == SQLITE_ROW)
    records.push_back(page.record());
  // An error is never the end of the data: damage is healed and the page read again, and a
  // passing fault leaves the rest for a later read.
  if (rc != SQLITE_DONE) {
    noteFailureLocked(db_, "cannot read");
    failed = true;
  }
  return records;
}

// The database's pages with the intake's changes laid over them. sync() may commit some of
// those changes meanwhile (its transaction runs without the intake's lock), and laying a
// change over a database that already has it changes nothing.
std::vector<OutboxRecord> SqliteOutboxStore::mergedPage(std::int64_t afterId, std::size_t limit,
                                                        bool& failed) {
  std::map<std::int64_t, std::string> merged;
  std::map<std::int64_t, const Pending*> fromIntake;
  for (std::int64_t cursor = afterId; merged.size() + fromIntake.size() < limit;) {
    auto page = databasePage(cursor, limit, failed);
    const bool full = page.size() == limit;
    // A full page says nothing of the numbers past its last: those wait for the next round;
    // nor does one a read error cut short, whose rest waits for a later read.
    const std::int64_t through = full || failed ? (page.empty() ? cursor : page.back().id)
                                                : std::numeric_limits<std::int64_t>::max();
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
    if (!full || failed)
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
  bool complete = true;
  return loadPage(afterId, limit, complete);
}

std::vector<OutboxRecord> SqliteOutboxStore::loadPage(std::int64_t afterId, std::size_t limit,
                                                      bool& complete) noexcept {
  adoptLeftIntakes();
  complete = false;
  // A healing that failed is tried again by reads too: a process that writes nothing has
  // no sync to try it.
  healAgainIfDue();
  try {
    for (int attempt = 0;; ++attempt) {
      {
        const std::lock_guard lock(intakeMutex_);
        if (db_ == nullptr || limit == 0) {
          // Closed for good, or until a failed healing succeeds: only then is there more.
          complete = limit == 0 || !intake_ || healAttempts_ == 0;
          return {};
        }
        damage_ = 0;
        bool failed = false;
        auto page = mergedPage(afterId, limit, failed);
        if (damage_ == 0 || attempt > 0) {
          complete = !failed;
          return page;
        }
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
    if (idFloor_ > 0)
      return idFloor_;  // known from the intake's number, whatever the database does now
    if (db_ == nullptr)
      return 0;
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
  SqliteStatement newest(db_, "SELECT id FROM outbox WHERE id > ?1 ORDER BY id DESC");
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

}  // namespace quorvel::platform
