// The outbox on POSIX: an append-only intake file that each batch reaches in one write, and one
// SQLite database in write-ahead-log mode that sync() moves the intake's batches into; both
// beside the app's data, guarded by an advisory lock so that two processes never share (and
// never send or delete) each other's reports.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <quorvel/platform/OutboxStore.h>

#include "platform/posix/OutboxIntake.h"

struct sqlite3;

namespace quorvel::platform {

class SqliteOutboxStore final : public OutboxStore {
 public:
  // The database file is `path`; its lock file is `path` + ".lock", its intake files `path`
  // + ".intake" (and "-prev", "-next" while sync() moves one into the database).
  explicit SqliteOutboxStore(std::string path);
  ~SqliteOutboxStore() override;

  bool open(std::string& reason) noexcept override;
  bool heldByAnotherProcess() const noexcept override { return heldElsewhere_; }
  bool apply(const std::vector<OutboxChange>& changes) noexcept override;
  std::vector<OutboxRecord> load(std::int64_t afterId, std::size_t limit) noexcept override;
  std::int64_t highestId() noexcept override;
  bool sync() noexcept override;
  bool destroy() noexcept override;

 private:
  // A change in an intake file, not yet in the database.
  struct Pending {
    std::shared_ptr<const OutboxIntake> file;
    OutboxIntake::Place place;
    bool removed = false;
  };
  using PendingMap = std::map<std::int64_t, Pending>;

  bool exec(const char* sql) noexcept;
  void close() noexcept;
  bool openDatabase(std::string& reason) noexcept;
  // Moves what a killed process left in its intake files into the database.
  bool takeInLeftIntake(std::string& reason) noexcept;
  // Starts a new intake file, the current one becoming "-prev"; `intakeMutex_` held.
  void rotateIntakeLocked() noexcept;
  bool commitToDatabase(const PendingMap& changes) noexcept;
  // The records after `afterId` that the database and the pending changes make together.
  std::vector<OutboxRecord> mergedPage(std::int64_t afterId, std::size_t limit);
  std::vector<OutboxRecord> databasePage(std::int64_t afterId, std::size_t limit);

  std::string path_;
  sqlite3* db_ = nullptr;      // reads, and the intake a killed process left
  std::mutex syncMutex_;
  sqlite3* syncDb_ = nullptr;  // sync()'s own connection: the commits and checkpoints
  int lockFd_ = -1;
  bool heldElsewhere_ = false;

  std::mutex intakeMutex_;
  std::shared_ptr<OutboxIntake> intake_;
  PendingMap pending_;     // appended since the last sync() began
  PendingMap committing_;  // being moved into the database by sync() (or failed to be)
  bool prevOnDisk_ = false;
};

}  // namespace quorvel::platform
