#include "RequestStore.h"
#include "PrivateFiles.h"

#include <algorithm>
#include <stdexcept>

namespace quorvel::devserver {

namespace {

using Statement = SqliteStatement;

Statement prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &raw, nullptr) != SQLITE_OK)
    throw std::runtime_error(std::string("request store: ") + sqlite3_errmsg(db));
  return Statement(raw);
}

void bindText(sqlite3_stmt* s, int index, const std::string& text) {
  sqlite3_bind_text(s, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string columnText(sqlite3_stmt* s, int index) {
  const auto* text = sqlite3_column_blob(s, index);
  const int size = sqlite3_column_bytes(s, index);
  return text == nullptr ? std::string() : std::string(static_cast<const char*>(text), size);
}

void step(sqlite3* db, sqlite3_stmt* s) {
  if (const int rc = sqlite3_step(s); rc != SQLITE_DONE && rc != SQLITE_ROW)
    throw std::runtime_error(std::string("request store: ") + sqlite3_errmsg(db));
}

}  // namespace

RequestStore::RequestStore(const std::string& path) {
  if (path != ":memory:") {
    // Made 0600 before SQLite opens it: SQLite gives its log and shared-memory files the
    // database's mode, and would make the database 0644.
    makePrivateFile(path);
    closeIfPresent(path + "-wal");
    closeIfPresent(path + "-shm");
  }
  sqlite3* raw = nullptr;
  const int rc =
      sqlite3_open_v2(path.c_str(), &raw,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  db_.reset(raw);
  if (rc != SQLITE_OK)
    throw std::runtime_error("request store: cannot open " + path + ": " +
                             (raw != nullptr ? sqlite3_errmsg(raw) : "out of memory"));
  sqlite3_busy_timeout(db_.get(), 5000);
  // WAL lets `requests` read while the server writes; in WAL mode NORMAL syncs at checkpoints
  // rather than at every commit, and a crash loses at most the last commits, never the file.
  exec("PRAGMA journal_mode=WAL");
  exec("PRAGMA synchronous=NORMAL");
  exec("PRAGMA wal_autocheckpoint=0");
  // Rows are never deleted, so a plain rowid key already rises with every insert; AUTOINCREMENT
  // would write its counter page in every commit. The seen reports are only ever looked up by
  // their key, so they are one b-tree rather than a table and its index.
  exec(
      "CREATE TABLE IF NOT EXISTS requests (id INTEGER PRIMARY KEY, time REAL, "
      "method TEXT, host TEXT, service TEXT, path TEXT, query TEXT, headers TEXT, body BLOB, "
      "decrypted TEXT, status INTEGER, note TEXT, repeat INTEGER DEFAULT 0)");
  exec(
      "CREATE TABLE IF NOT EXISTS reports_seen (app TEXT, key TEXT, PRIMARY KEY (app, key)) "
      "WITHOUT ROWID");
  loadReportsSeen();
  exec(
      "CREATE TABLE IF NOT EXISTS conversion_data_served (app TEXT, device TEXT, "
      "PRIMARY KEY (app, device))");
  exec(
      "CREATE TABLE IF NOT EXISTS short_links (template TEXT, id TEXT, app TEXT, ttl TEXT, "
      "data TEXT, PRIMARY KEY (template, id))");
  insertRequest_ = prepare(db_.get(),
                           "INSERT INTO requests (time, method, host, service, path, query, "
                           "headers, body, decrypted, status, note, repeat) "
                           "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  insertSeen_ = prepare(db_.get(), "INSERT OR IGNORE INTO reports_seen (app, key) VALUES (?, ?)");
  begin_ = prepare(db_.get(), "BEGIN");
  commit_ = prepare(db_.get(), "COMMIT");
  rollback_ = prepare(db_.get(), "ROLLBACK");
  startCheckpointer(path);
  writer_ = std::thread([this] { writeWhileQueued(); });
}

RequestStore::~RequestStore() {
  {
    const std::lock_guard queue(queueMutex_);
    stopping_ = true;
  }
  rowsQueued_.notify_all();
  if (writer_.joinable())
    writer_.join();
  {
    const std::lock_guard lock(checkpointMutex_);
    checkpointStopping_ = true;
  }
  checkpointAsked_.notify_all();
  if (checkpointer_.joinable())
    checkpointer_.join();
}

namespace {
// Pages in the log after which a checkpoint is asked for: SQLite's own default.
constexpr int kCheckpointPages = 1000;
}  // namespace

void RequestStore::startCheckpointer(const std::string& path) {
  if (path == ":memory:")
    return;  // no log to copy
  sqlite3* raw = nullptr;
  if (sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr) !=
      SQLITE_OK) {
    sqlite3_close(raw);
    exec("PRAGMA wal_autocheckpoint=1000");  // no second connection: the commits copy
    return;
  }
  checkpointDb_.reset(raw);
  sqlite3_busy_timeout(raw, 5000);
  sqlite3_wal_hook(
      db_.get(),
      [](void* self, sqlite3*, const char*, int pages) {
        if (pages >= kCheckpointPages) {
          auto* store = static_cast<RequestStore*>(self);
          {
            const std::lock_guard lock(store->checkpointMutex_);
            store->checkpointDue_ = true;
          }
          store->checkpointAsked_.notify_one();
        }
        return SQLITE_OK;
      },
      this);
  checkpointer_ = std::thread([this] { checkpointWhenAsked(); });
}

void RequestStore::checkpointWhenAsked() {
  std::unique_lock lock(checkpointMutex_);
  for (;;) {
    checkpointAsked_.wait(lock, [&] { return checkpointStopping_ || checkpointDue_; });
    if (checkpointStopping_)
      return;
    checkpointDue_ = false;
    lock.unlock();
    // Passive: it copies what no reader needs and never holds up a commit.
    sqlite3_wal_checkpoint_v2(checkpointDb_.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr,
                              nullptr);
    lock.lock();
  }
}

void RequestStore::exec(const char* sql) const {
  char* error = nullptr;
  if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error != nullptr ? error : "unknown error";
    sqlite3_free(error);
    throw std::runtime_error("request store: " + message);
  }
}

void RequestStore::runPrepared(sqlite3_stmt* statement) const {
  sqlite3_reset(statement);
  step(db_.get(), statement);
}

void RequestStore::commitQueuedLocked() const {
  std::vector<Row> group;
  {
    const std::lock_guard queue(queueMutex_);
    group.swap(queued_);
  }
  if (group.empty())
    return;
  try {
    runPrepared(begin_.get());
    try {
      for (const auto& row : group)
        insertLocked(row);
      runPrepared(commit_.get());
    } catch (...) {
      runPrepared(rollback_.get());
      throw;
    }
  } catch (const std::exception&) {
    // A store that cannot write loses the group; the writer goes on with the next one.
  }
}

RequestStore::Row RequestStore::toRow(StoredRequest request) {
  Row row;
  row.headers = request.headers.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (request.decrypted)
    row.decrypted = request.decrypted->dump(-1, ' ', false, Json::error_handler_t::replace);
  row.request = std::move(request);
  return row;
}

void RequestStore::add(StoredRequest request) {
  Row row = toRow(std::move(request));
  {
    const std::lock_guard queue(queueMutex_);
    queued_.push_back(std::move(row));
  }
  rowsQueued_.notify_one();
}

// Commits whatever was queued since its last commit, for as long as rows come: a burst costs
// a transaction per group, and the group grows with the load by itself.
void RequestStore::writeWhileQueued() {
  std::unique_lock queue(queueMutex_);
  for (;;) {
    rowsQueued_.wait(queue, [&] { return stopping_ || !queued_.empty(); });
    if (queued_.empty())
      return;  // stopping, and everything is written
    queue.unlock();
    {
      const std::lock_guard lock(mutex_);
      commitQueuedLocked();
    }
    queue.lock();
  }
}

void RequestStore::insertLocked(const Row& row) const {
  const StoredRequest& r = row.request;
  sqlite3_stmt* s = insertRequest_.get();
  sqlite3_reset(s);
  sqlite3_clear_bindings(s);
  sqlite3_bind_double(s, 1, r.time);
  bindText(s, 2, r.method);
  bindText(s, 3, r.host);
  bindText(s, 4, r.service);
  bindText(s, 5, r.path);
  bindText(s, 6, r.query);
  bindText(s, 7, row.headers);
  sqlite3_bind_blob(s, 8, r.body.data(), static_cast<int>(r.body.size()), SQLITE_TRANSIENT);
  if (row.decrypted)
    bindText(s, 9, *row.decrypted);
  else
    sqlite3_bind_null(s, 9);
  sqlite3_bind_int(s, 10, r.status);
  bindText(s, 11, r.note);
  sqlite3_bind_int(s, 12, r.repeat ? 1 : 0);
  step(db_.get(), s);
  if (r.firstReport) {
    sqlite3_stmt* seen = insertSeen_.get();
    sqlite3_reset(seen);
    bindText(seen, 1, r.firstReport->first);
    bindText(seen, 2, r.firstReport->second);
    step(db_.get(), seen);
  }
}

namespace {

constexpr const char* kColumns =
    "SELECT id, time, method, host, service, path, query, headers, body, decrypted, status, note, "
    "repeat FROM requests ";

std::vector<StoredRequest> readRequests(sqlite3_stmt* s) {
  std::vector<StoredRequest> out;
  while (sqlite3_step(s) == SQLITE_ROW) {
    StoredRequest r;
    r.id = sqlite3_column_int64(s, 0);
    r.time = sqlite3_column_double(s, 1);
    r.method = columnText(s, 2);
    r.host = columnText(s, 3);
    r.service = columnText(s, 4);
    r.path = columnText(s, 5);
    r.query = columnText(s, 6);
    r.headers = Json::parse(columnText(s, 7), nullptr, false);
    r.body = columnText(s, 8);
    if (sqlite3_column_type(s, 9) != SQLITE_NULL) {
      Json decrypted = Json::parse(columnText(s, 9), nullptr, false);
      if (!decrypted.is_discarded())
        r.decrypted = std::move(decrypted);
    }
    r.status = sqlite3_column_int(s, 10);
    r.note = columnText(s, 11);
    r.repeat = sqlite3_column_int(s, 12) != 0;
    out.push_back(std::move(r));
  }
  return out;
}

}  // namespace

std::vector<StoredRequest> RequestStore::all() const {
  const std::lock_guard lock(mutex_);
  commitQueuedLocked();
  const Statement s = prepare(db_.get(), (std::string(kColumns) + "ORDER BY id").c_str());
  return readRequests(s.get());
}

std::vector<StoredRequest> RequestStore::newerThan(std::int64_t id, std::size_t limit) const {
  const std::lock_guard lock(mutex_);
  commitQueuedLocked();
  const Statement s =
      prepare(db_.get(), (std::string(kColumns) + "WHERE id > ? ORDER BY id DESC LIMIT ?").c_str());
  sqlite3_bind_int64(s.get(), 1, id);
  sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(limit));
  return readRequests(s.get());
}

// Every tracking request asks; an autocommit write per request would cost more than the rest
// of its handling, so the set lives in memory and is written in the request's group.
bool RequestStore::markReportSeen(const std::string& appId, const std::string& key) {
  const std::lock_guard lock(seenMutex_);
  return !seen_.insert(appId + '\n' + key).second;
}

void RequestStore::loadReportsSeen() {
  const Statement s = prepare(db_.get(), "SELECT app, key FROM reports_seen");
  while (sqlite3_step(s.get()) == SQLITE_ROW) {
    const auto text = [&](int column) {
      const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), column));
      return p != nullptr ? std::string(p) : std::string();
    };
    seen_.insert(text(0) + '\n' + text(1));
  }
}

bool RequestStore::markConversionDataServed(const std::string& appId, const std::string& deviceId) {
  const std::lock_guard lock(mutex_);
  const Statement s = prepare(
      db_.get(), "INSERT OR IGNORE INTO conversion_data_served (app, device) VALUES (?, ?)");
  bindText(s.get(), 1, appId);
  bindText(s.get(), 2, deviceId);
  step(db_.get(), s.get());
  return sqlite3_changes(db_.get()) == 0;
}

void RequestStore::addShortLink(const ShortLink& link) {
  const std::lock_guard lock(mutex_);
  const Statement s = prepare(
      db_.get(),
      "INSERT OR REPLACE INTO short_links (template, id, app, ttl, data) VALUES (?, ?, ?, ?, ?)");
  bindText(s.get(), 1, link.templateId);
  bindText(s.get(), 2, link.id);
  bindText(s.get(), 3, link.appId);
  bindText(s.get(), 4, link.ttl);
  bindText(s.get(), 5, link.data.dump(-1, ' ', false, Json::error_handler_t::replace));
  step(db_.get(), s.get());
}

std::optional<ShortLink> RequestStore::shortLink(const std::string& templateId,
                                                 const std::string& id) const {
  const std::lock_guard lock(mutex_);
  const Statement s =
      prepare(db_.get(), "SELECT app, ttl, data FROM short_links WHERE template = ? AND id = ?");
  bindText(s.get(), 1, templateId);
  bindText(s.get(), 2, id);
  if (sqlite3_step(s.get()) != SQLITE_ROW)
    return std::nullopt;
  ShortLink link{templateId, id, columnText(s.get(), 0), columnText(s.get(), 1),
                 Json::parse(columnText(s.get(), 2), nullptr, false)};
  if (link.data.is_discarded())
    link.data = Json::object();
  return link;
}

}  // namespace quorvel::devserver
