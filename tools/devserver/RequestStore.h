// Everything the emulator received and the state it keeps between requests, in one SQLite
// file that a person or a script can read while the server runs.
#pragma once

#include <sqlite3.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorvel::devserver {

using Json = nlohmann::ordered_json;

struct StoredRequest {
  std::int64_t id = 0;
  double time = 0;  // seconds since 1970
  std::string method;
  std::string host;
  std::string service;  // "t", "events", "sdk", ... or "" when the host is not one of ours
  std::string path;
  std::string query;
  Json headers = Json::object();
  std::string body;
  std::optional<Json> decrypted;  // the clear payload, where there is one
  int status = 0;
  std::string note;
  // The report was received before (same install and counter): answered, not counted again.
  bool repeat = false;
  // The first receipt of a report: its app and key, written with the request.
  std::optional<std::pair<std::string, std::string>> firstReport;
};

struct ShortLink {
  std::string templateId;
  std::string id;
  std::string appId;
  std::string ttl;
  Json data;
};

struct SqliteStatementCloser {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using SqliteStatement = std::unique_ptr<sqlite3_stmt, SqliteStatementCloser>;

class RequestStore {
 public:
  // Opens (creating when needed) the database at `path`; ":memory:" keeps it in memory.
  // Throws std::runtime_error when it cannot be opened.
  explicit RequestStore(const std::string& path);
  ~RequestStore();
  RequestStore(const RequestStore&) = delete;
  RequestStore& operator=(const RequestStore&) = delete;

  // Queues the request and returns; a thread of the store commits what is queued, a group
  // per transaction. An answer does not wait for its commit: waiting put a commit and two
  // thread wake-ups in the path of every answer, and cost a burst a quarter of its rate.
  // Every read here commits the queue first, so what was answered is in what `all` and
  // `newerThan` return; a reader of the database file sees it one commit later; destroying
  // the store (a stop) writes the queue out, so only a kill of the emulator loses its last
  // requests.
  void add(StoredRequest request);
  std::vector<StoredRequest> all() const;
  // Requests recorded after `id`, newest first, at most `limit`.
  std::vector<StoredRequest> newerThan(std::int64_t id, std::size_t limit) const;

  // True when this device of this app was given conversion data before; marks it as given.
  bool markConversionDataServed(const std::string& appId, const std::string& deviceId);

  // True when the report `key` of this app was received before; marks it as received. The
  // mark is kept in memory and reaches the database with the request (`firstReport`).
  bool markReportSeen(const std::string& appId, const std::string& key);

  void addShortLink(const ShortLink& link);
  std::optional<ShortLink> shortLink(const std::string& templateId, const std::string& id) const;

 private:
  // A request as its row: the JSON columns are rendered by the connection's own thread,
  // before the request joins a group, so that the commit only binds and writes.
  struct Row {
    StoredRequest request;
    std::string headers;
    std::optional<std::string> decrypted;
  };
  static Row toRow(StoredRequest request);

  void exec(const char* sql) const;
  void runPrepared(sqlite3_stmt* statement) const;
  void insertLocked(const Row& row) const;
  // Takes the queue and commits it; the database lock is held.
  void commitQueuedLocked() const;
  void loadReportsSeen();
  void startCheckpointer(const std::string& path);
  void checkpointWhenAsked();
  void writeWhileQueued();

  struct Closer {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
  };
  std::unique_ptr<sqlite3, Closer> db_;
  // Prepared once: every request is a row, and every group a transaction.
  SqliteStatement insertRequest_;
  SqliteStatement insertSeen_;
  SqliteStatement begin_;
  SqliteStatement commit_;
  SqliteStatement rollback_;
  mutable std::mutex mutex_;       // the database
  mutable std::mutex queueMutex_;  // the queue; never held while waiting for the database
  std::condition_variable rowsQueued_;
  mutable std::vector<Row> queued_;
  bool stopping_ = false;  // under the queue's lock
  std::thread writer_;

  // The log is copied into the database by a thread of its own, on a connection of its own,
  // instead of inside whichever commit crossed the threshold: that commit's senders used to
  // wait for the copy and its syncs.
  std::unique_ptr<sqlite3, Closer> checkpointDb_;
  std::mutex checkpointMutex_;
  std::condition_variable checkpointAsked_;
  bool checkpointDue_ = false;
  bool checkpointStopping_ = false;
  std::thread checkpointer_;
  std::mutex seenMutex_;
  std::unordered_set<std::string> seen_;  // "app\nkey"
};

}  // namespace quorvel::devserver
