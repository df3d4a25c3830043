// The outbox on POSIX: one SQLite database in write-ahead-log mode beside the app's data,
// guarded by an advisory lock so that two processes never share (and never send or delete)
// each other's reports.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include <quorvel/platform/OutboxStore.h>

struct sqlite3;

namespace quorvel::platform {

class SqliteOutboxStore final : public OutboxStore {
 public:
  // The database file is `path`; its lock file is `path` + ".lock".
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
  bool exec(const char* sql) noexcept;
  void close() noexcept;

  std::string path_;
  sqlite3* db_ = nullptr;
  std::mutex syncMutex_;
  sqlite3* syncDb_ = nullptr;  // sync()'s own connection
  int lockFd_ = -1;
  bool heldElsewhere_ = false;
};

}  // namespace quorvel::platform
