// Reads back what a damaged outbox database still holds. SQLite reports a damaged page as an
// error of the statement that meets it, never as the end of the data: the records past it are
// reached by seeking beyond the page, and only the records on it are lost.
#include "platform/posix/OutboxSalvage.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <vector>

#include "platform/AtomicFile.h"
#include "platform/ParentOnlyDescriptor.h"
#include "platform/posix/SqliteStatement.h"

namespace quorvel::platform {
namespace {

constexpr std::int64_t kNoRecord = std::numeric_limits<std::int64_t>::min();
// Each process numbers its records from its own floor (a number times 2^32), one after another.
constexpr int kProcessShift = 32;
// A gap estimate past this says more about a damaged interior page than about lost records.
constexpr std::uint64_t kMaxGapEstimate = 100'000;

// The first record numbered above `after` that a seek reaches; nullopt when the seek meets a
// damaged page, kNoRecord when there is none.
std::optional<std::int64_t> firstAbove(sqlite3* db, std::int64_t after) {
  SqliteStatement q(db, "SELECT id FROM outbox WHERE id > ?1 ORDER BY id LIMIT 1");
  if (!q)
    return std::nullopt;
  sqlite3_bind_int64(q.get(), 1, after);
  const int rc = sqlite3_step(q.get());
  if (rc == SQLITE_ROW)
    return sqlite3_column_int64(q.get(), 0);
  if (rc == SQLITE_DONE)
    return kNoRecord;
  return std::nullopt;
}

// The first readable record past a damaged page met after `cursor`: seeks farther and farther
// until one succeeds, then narrows down to the nearest start that still does.
std::optional<std::int64_t> skipDamage(sqlite3* db, std::int64_t cursor) {
  std::int64_t failing = cursor;
  for (int bit = 0; bit < 63; ++bit) {
    const std::int64_t step = std::int64_t{1} << bit;
    if (cursor > std::numeric_limits<std::int64_t>::max() - step)
      return std::nullopt;
    const auto found = firstAbove(db, cursor + step);
    if (!found) {
      failing = cursor + step;
      continue;
    }
    std::int64_t good = cursor + step;
    std::int64_t result = *found;
    while (good - failing > 1) {
      const std::int64_t middle = failing + (good - failing) / 2;
      if (const auto at = firstAbove(db, middle)) {
        good = middle;
        result = *at;
      } else {
        failing = middle;
      }
    }
    return result == kNoRecord ? std::nullopt : std::optional(result);
  }
  return std::nullopt;
}

std::uint64_t gapEstimate(std::int64_t before, std::int64_t after) {
  if (before == kNoRecord || (before >> kProcessShift) != (after >> kProcessShift))
    return 1;  // at least the page that could not be read held one
  const auto gap = static_cast<std::uint64_t>(after - before - 1);
  return std::clamp<std::uint64_t>(gap, 1, kMaxGapEstimate);
}

}  // namespace

bool isDamage(int sqliteCode) noexcept {
  const int primary = sqliteCode & 0xff;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

bool passesQuickCheck(sqlite3* db) noexcept {
  SqliteStatement q(db, "PRAGMA quick_check");
  if (!q || sqlite3_step(q.get()) != SQLITE_ROW)
    return false;
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(q.get(), 0));
  return text != nullptr && std::strcmp(text, "ok") == 0;
}

Salvage salvageRecords(sqlite3* db) {
  Salvage out;
  std::int64_t cursor = kNoRecord;
  std::int64_t lastRead = kNoRecord;
  try {
    for (int guard = 0; guard < 1'000'000; ++guard) {
      SqliteStatement page(db, "SELECT id, content FROM outbox WHERE id > ?1 ORDER BY id");
      if (!page) {
        // A table whose pages cannot even be found (a file cut short) lost what it held.
        if (isDamage(sqlite3_errcode(db))) {
          out.gaps.emplace_back(cursor, std::numeric_limits<std::int64_t>::max());
          out.lost += 1;
        }
        break;
      }
      sqlite3_bind_int64(page.get(), 1, cursor);
      int rc = SQLITE_OK;
      while ((rc = sqlite3_step(page.get())) == SQLITE_ROW) {
        out.records.push_back(page.record());
        cursor = lastRead = out.records.back().id;
      }
      if (rc == SQLITE_DONE)
        break;
      const auto next = skipDamage(db, cursor);
      const std::int64_t end = next ? *next : std::numeric_limits<std::int64_t>::max();
      out.gaps.emplace_back(cursor, end);
      out.lost += next ? gapEstimate(lastRead, *next) : 1;
      if (!next)
        break;
      cursor = *next - 1;
    }
  } catch (...) {
    // Out of memory: what was read so far is saved.
  }
  if (const char* file = sqlite3_db_filename(db, "main"); file != nullptr && *file != '\0')
    completeFromPages(file, out);
  return out;
}

namespace {

// Room for a copy of the database (the blocks it takes: its holes are kept) and its log, with
// some to spare for the host.
bool roomForCopy(const std::string& path) {
  constexpr std::uint64_t kSpare = std::uint64_t{16} << 20;
  struct stat file {};
  struct stat log {};
  struct statvfs disk {};
  if (::stat(path.c_str(), &file) != 0 ||
      ::statvfs(std::filesystem::path(path).parent_path().c_str(), &disk) != 0)
    return true;  // unknown: the copy itself tells
  const auto logSize = ::stat((path + "-wal").c_str(), &log) == 0 ? log.st_size : 0;
  const std::uint64_t needed = static_cast<std::uint64_t>(file.st_blocks) * 512 +
                               static_cast<std::uint64_t>(logSize) + kSpare;
  return static_cast<std::uint64_t>(disk.f_bavail) * disk.f_frsize >= needed;
}

// Copies `from` to `to` one stretch of data at a time, keeping the holes of a sparse file as
// holes: a file stretched to gigabytes with little in it copies in a moment and takes no more
// room. Where the file system cannot tell data from holes, the whole file is copied.
bool copyKeepingHoles(const std::string& from, const std::string& to) {
  const ParentOnlyDescriptor in(
      ::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  const ParentOnlyDescriptor out(
      ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  struct stat status {};
  if (in.get() < 0 || out.get() < 0 || ::fstat(in.get(), &status) != 0 || !S_ISREG(status.st_mode))
    return false;
  std::vector<char> buffer(std::size_t{1} << 20);
  for (off_t at = 0; at < status.st_size;) {
    off_t data = ::lseek(in.get(), at, SEEK_DATA);
    if (data < 0 && errno == ENXIO)
      break;  // only a hole is left
    data = data < 0 ? at : data;
    off_t hole = ::lseek(in.get(), data, SEEK_HOLE);
    hole = hole < 0 ? status.st_size : std::min<off_t>(hole, status.st_size);
    while (data < hole) {
      const auto want =
          static_cast<std::size_t>(std::min<off_t>(hole - data, static_cast<off_t>(buffer.size())));
      const ssize_t n = ::pread(in.get(), buffer.data(), want, data);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        return false;
      if (!writeAll(out.get(), buffer.data(), static_cast<std::size_t>(n), data))
        return false;
      data += n;
    }
    at = hole;
  }
  return ::ftruncate(out.get(), status.st_size) == 0;
}

}  // namespace

Salvage salvageFile(const std::string& path) {
  namespace fs = std::filesystem;
  static constexpr std::array<std::uint16_t, 7> kPageSizes = {
      4096, 1024, 2048, 8192, 16384, 32768, 1};  // 1 stands for 65536
  const std::string copy = path + ".salvage";
  Salvage best;
  // One copy for every page size tried: only its header changes between the tries, and no
  // connection on it ever writes back (no checkpoint when it closes), so a file of hundreds of
  // megabytes is copied once, not once a try. Never where it would fill the disk: the host's
  // own writes would fail meanwhile.
  std::error_code ec;
  if (!roomForCopy(path) || !copyKeepingHoles(path, copy))
    ec = std::make_error_code(std::errc::no_space_on_device);
  std::error_code logEc;
  fs::remove(copy + "-wal", logEc);
  if (!ec && fs::exists(path + "-wal"))
    fs::copy_file(path + "-wal", copy + "-wal", fs::copy_options::overwrite_existing, ec);
  if (ec) {
    for (const char* suffix : {"", "-wal"})
      fs::remove(copy + suffix, logEc);
    // Read later, when there is room: a reading of the damaged file in place takes its
    // damaged header's word for the page size, and a wrong one would leave most records behind.
    best.tried = false;
    return best;
  }
  // The log's header names the page size too, and a log is whole more often than the file's
  // header: its page size is tried first (else a wrong one that reads a few records would win,
  // and the log, of another page size, would be left unread).
  std::vector<std::uint16_t> pageSizes(kPageSizes.begin(), kPageSizes.end());
  std::optional<std::uint16_t> logged;  // as the database header writes it: 1 for 65536
  if (const auto size = logPageSize(path + "-wal"))
    logged = static_cast<std::uint16_t>(*size == 65536 ? 1 : *size);
  if (logged) {
    std::erase(pageSizes, *logged);
    pageSizes.insert(pageSizes.begin(), *logged);
  }
  for (const auto pageSize : pageSizes) {
    fs::remove(copy + "-shm", ec);  // the log's index as the last try's page size built it
    {
      std::fstream file(copy, std::ios::in | std::ios::out | std::ios::binary);
      std::array<char, 24> header{};
      std::memcpy(header.data(), "SQLite format 3", 16);
      header[16] = static_cast<char>(pageSize >> 8);
      header[17] = static_cast<char>(pageSize & 0xff);
      header[18] = 2;  // write-ahead log
      header[19] = 2;
      header[20] = 0;
      header[21] = 64;
      header[22] = 32;
      header[23] = 32;
      file.write(header.data(), header.size());
    }
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(copy.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
        sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr) == SQLITE_OK) {
      Salvage found = salvageRecords(db);
      // The most records; between equals, the reading that saw the damage (a wrong page size
      // can show an empty table where the right one shows it cut short).
      if (found.records.size() > best.records.size() ||
          (found.records.size() == best.records.size() && found.lost > best.lost))
        best = std::move(found);
    }
    sqlite3_close_v2(db);
    // A reading at the log's page size, or a clean one, ends the search. One that met damage
    // without a log to go by may be a wrong page size reading a few records (a file of
    // 65536-byte pages read as 4096 gave 75 of 2500): the others are tried, and the most
    // records win. Never against the log's page size: a reading at another ignores the log,
    // and brings back the records it removed.
    if (!best.records.empty() && (pageSize == logged || (best.lost == 0 && best.gaps.empty())))
      break;
  }
  for (const char* suffix : {"", "-wal", "-shm"})
    fs::remove(copy + suffix, ec);
  return best;
}

bool writeFreshDatabase(const std::string& file, const std::vector<OutboxRecord>& records) {
  std::error_code ec;
  for (const char* suffix : {"", "-journal", "-wal", "-shm"})
    std::filesystem::remove(file + suffix, ec);
  sqlite3* db = nullptr;
  const auto exec = [&db](const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
  };
  bool done = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                              nullptr) == SQLITE_OK &&
              exec(kOutboxSchemaVersion) && exec(kOutboxTable);
  {
    Transaction batch(db);
    done = done && batch.ok();
    for (auto it = records.begin(); done && it != records.end(); ++it)
      done = batch.change(it->id, &it->content);
    done = done && batch.commit();
  }
  sqlite3_close_v2(db);
  if (done) {
    ::chmod(file.c_str(), 0600);
  } else {
    for (const char* suffix : {"", "-journal", "-wal", "-shm"})
      std::filesystem::remove(file + suffix, ec);  // a part written would only take room
  }
  return done;
}

bool setAside(const std::string& path, std::int64_t stamp, std::string& asideName) {
  std::error_code ec;
  for (const auto& file : filesBeside(path, ".corrupt-"))
    std::filesystem::remove(file, ec);
  asideName = path + ".corrupt-" + std::to_string(stamp);
  if (::rename(path.c_str(), asideName.c_str()) != 0 && errno != ENOENT)
    return false;
  if (::rename((path + "-wal").c_str(), (asideName + "-wal").c_str()) != 0 && errno != ENOENT)
    return false;
  return ::unlink((path + "-shm").c_str()) == 0 || errno == ENOENT;
}

std::vector<std::string> filesBeside(const std::string& path, std::string_view suffix) {
  const std::filesystem::path file(path);
  const std::string prefix = file.filename().string() + std::string(suffix);
  std::vector<std::string> found;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(file.parent_path(), ec), end; !ec && it != end;
       it.increment(ec)) {
    if (it->path().filename().string().starts_with(prefix))
      found.push_back(it->path().string());
  }
  return found;
}

std::vector<std::pair<std::uint64_t, std::string>> numberedBeside(const std::string& path,
                                                                  std::string_view suffix,
                                                                  std::size_t maxDigits) {
  const std::size_t digitsAt =
      std::filesystem::path(path).filename().string().size() + suffix.size();
  std::vector<std::pair<std::uint64_t, std::string>> numbered;
  for (auto& file : filesBeside(path, suffix)) {
    const std::string name = std::filesystem::path(file).filename().string();
    if (name.size() > digitsAt && name.size() - digitsAt <= maxDigits &&
        name.find_first_not_of("0123456789", digitsAt) == std::string::npos)
      numbered.emplace_back(std::stoull(name.substr(digitsAt)), std::move(file));
  }
  return numbered;
}

}  // namespace quorvel::platform
