// A damaged outbox database on a real disk heals: the file is set aside (one kept), every
// record still readable is saved into a fresh database, what is lost is counted, and the store
// is durable again. A passing fault never sets a sound database aside.
#include <sqlite3.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <random>

#include <gtest/gtest.h>

#include "platform/posix/SqliteOutboxStore.h"
#include "support/TempDir.h"

namespace quorvel::platform {
namespace {

constexpr std::int64_t kRecords = 300;

void overwrite(const std::string& file, std::streamoff at, std::size_t bytes) {
  std::mt19937 random(7);
  std::string garbage(bytes, '\0');
  for (auto& c : garbage)
    c = static_cast<char>(random());
  std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(at);
  f.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
}

// A database of another schema: one more NOT NULL column and a higher version number.
void writeForeignSchema(const std::string& file) {
  std::filesystem::remove(file);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "PRAGMA user_version=7; CREATE TABLE outbox (id INTEGER PRIMARY KEY, "
                         "content BLOB NOT NULL, shard INTEGER NOT NULL);"
                         "INSERT INTO outbox VALUES (5, 'five', 1), (6, 'six', 1);",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
}

std::size_t filesStartingWith(const std::filesystem::path& folder, const std::string& prefix) {
  std::size_t n = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    n += entry.path().filename().string().starts_with(prefix) ? 1 : 0;
  return n;
}

class OutboxDamageTest : public ::testing::Test {
 protected:
  test::TempDir dir;
  std::string file() const { return dir / "Library/QuorvelOutbox.sqlite"; }

  void writeRecords() {
    SqliteOutboxStore store(file());
    std::string reason;
    ASSERT_TRUE(store.open(reason)) << reason;
    std::vector<OutboxChange> batch;
    for (std::int64_t id = 1; id <= kRecords; ++id)
      batch.push_back({id, "record " + std::to_string(id) + std::string(200, '.')});
    ASSERT_TRUE(store.apply(batch));
    ASSERT_TRUE(store.sync());  // into the database, its log emptied
  }
};

TEST_F(OutboxDamageTest, ADamagedDatabaseIsSetAsideWithEveryReadableRecordSaved) {
  struct Case {
    const char* name;
    std::function<void(const std::string&)> damage;
    std::size_t atLeast;  // records saved
    std::size_t atMost;
    bool lossCounted;
  };
  const std::vector<Case> cases = {
      {"garbage over the header", [](const std::string& f) { overwrite(f, 0, 23); }, kRecords,
       kRecords, false},
      {"truncated to its first page",
       [](const std::string& f) { std::filesystem::resize_file(f, 4096); }, 0, 0, true},
      {"two pages overwritten",
       [](const std::string& f) {
         overwrite(f, 4 * 4096, 4096);
         overwrite(f, 9 * 4096, 4096);
       },
       kRecords - 60, kRecords - 1, true},
      {"garbage over the header of a database of 65536-byte pages",
       [](const std::string& f) {
         sqlite3* db = nullptr;
         sqlite3_open(f.c_str(), &db);
         sqlite3_exec(db,
                      "PRAGMA journal_mode=DELETE; PRAGMA page_size=65536; VACUUM; WITH RECURSIVE "
                      "n(i) AS (SELECT 1001 UNION ALL SELECT i + 1 FROM n WHERE i < 3200) INSERT "
                      "INTO outbox SELECT i, zeroblob(200) FROM n",
                      nullptr, nullptr, nullptr);
         sqlite3_close(db);
         overwrite(f, 0, 23);
       },
       2500, 2500, false},
      {"a newer schema", writeForeignSchema, 2, 2, false},
      {"a FIFO in its place",
       [](const std::string& f) { std::filesystem::remove(f), ::mkfifo(f.c_str(), 0600); }, 0, 0,
       false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(dir / "Library");
    writeRecords();
    c.damage(file());

    std::size_t saved = 0;
    {
      SqliteOutboxStore store(file());
      std::string reason;
      ASSERT_TRUE(store.open(reason)) << reason;
      saved = store.load(-1, SIZE_MAX).size();
      EXPECT_GE(saved, c.atLeast);
      EXPECT_LE(saved, c.atMost);
      EXPECT_EQ(store.unreadableRecords() > 0, c.lossCounted);
      EXPECT_NE(store.takeHealingNote().find("set aside"), std::string::npos);
      // Durable again: a new record is written and synced.
      ASSERT_TRUE(store.apply({{kRecords + 1, "after"}}));
      ASSERT_TRUE(store.sync());
    }
    EXPECT_EQ(filesStartingWith(dir / "Library", "QuorvelOutbox.sqlite.corrupt-"), 1U);
    SqliteOutboxStore again(file());
    std::string reason;
    ASSERT_TRUE(again.open(reason)) << reason;
    EXPECT_EQ(again.load(-1, SIZE_MAX).size(), saved + 1);
    EXPECT_TRUE(again.takeHealingNote().empty());  // healed once, sound since
  }
}

// The table from before the schema was numbered is the same: numbered in place, nothing set
// aside.
TEST_F(OutboxDamageTest, AnOldSchemaIsMigratedInPlace) {
  std::filesystem::create_directories(dir / "Library");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file().c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "CREATE TABLE outbox (id INTEGER PRIMARY KEY, content BLOB NOT NULL);"
                         "INSERT INTO outbox VALUES (3, 'three');",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  SqliteOutboxStore store(file());
  std::string reason;
  ASSERT_TRUE(store.open(reason)) << reason;
  EXPECT_EQ(store.load(-1, SIZE_MAX).size(), 1U);
  EXPECT_TRUE(store.takeHealingNote().empty());
  EXPECT_EQ(filesStartingWith(dir / "Library", "QuorvelOutbox.sqlite.corrupt-"), 0U);
}

// A healing that cannot be done now (a folder in the way of the saved records, as a full disk
// would be) closes only the database: batches still reach the intake, a read says that more is
// to come, and a later sync heals with them. So at open, where a damaged header is read from a
// copy: with no room for one, nothing is set aside until there is.
TEST_F(OutboxDamageTest, AHealingThatFailsKeepsTheIntakeAndIsTriedAgain) {
  writeRecords();
  std::string reason;
  std::size_t kept = 0;
  {
    SqliteOutboxStore store(file());
    ASSERT_TRUE(store.open(reason)) << reason;
    overwrite(file(), 4 * 4096, 4096);
    std::filesystem::create_directories(file() + ".healing/in-the-way");
    bool complete = true;
    store.loadPage(-1, SIZE_MAX, complete);
    EXPECT_FALSE(complete);
    ASSERT_TRUE(store.apply({{kRecords + 1, "after"}}));
    std::filesystem::remove_all(file() + ".healing");
    for (int n = 0; n < 4 && !store.sync(); ++n) {
    }
    const auto records = store.loadPage(-1, SIZE_MAX, complete);
    EXPECT_TRUE(complete);
    ASSERT_FALSE(records.empty());
    EXPECT_GE(records.size(), static_cast<std::size_t>(kRecords - 30));
    kept = records.size();
    EXPECT_EQ(records.back().content, "after");
    EXPECT_NE(store.takeHealingNote().find("set aside"), std::string::npos);
  }
  overwrite(file(), 0, 23);
  for (const char* inTheWay : {".salvage", ".healing"})
    std::filesystem::create_directories(file() + inTheWay + "/in-the-way");
  SqliteOutboxStore store(file());
  ASSERT_TRUE(store.open(reason)) << reason;
  ASSERT_TRUE(store.apply({{kRecords + 2, "while"}}));
  for (const char* inTheWay : {".salvage", ".healing"})
    std::filesystem::remove_all(file() + inTheWay);
  for (int n = 0; n < 4 && !store.sync(); ++n) {
  }
  EXPECT_EQ(store.load(-1, SIZE_MAX).size(), kept + 1);
}

// A second opener, refused the store, keeps its records in a file of its own; the holder hears
// of it and takes each file whole, and a guest whose file was taken starts another: nothing is lost
// or taken twice.
TEST_F(OutboxDamageTest, AGuestsRecordsGoToTheHolderOnce) {
  SqliteOutboxStore holder(file());
  SqliteOutboxStore guest(file());
  std::string reason;
  ASSERT_TRUE(holder.open(reason)) << reason;
  ASSERT_FALSE(guest.open(reason));
  ASSERT_TRUE(guest.heldByAnotherProcess());
  std::vector<std::string> taken;
  SqliteOutboxStore* taker = &holder;
  const auto keep = [&](const std::vector<OutboxRecord>& records) {
    for (const auto& r : records) {
      if (r.id >= 0)
        taken.push_back(r.content);
    }
    return taker->apply({{records.back().id, records.back().content}});  // the taking's mark
  };
  // An idle holder is told of a guest's first file at once (a real wait, bounded).
  std::mutex seenMutex;
  std::condition_variable seenChanged;
  bool seen = false;
  holder.watchFolder(
      [&] {
        const std::lock_guard lock(seenMutex);
        seen = true;
        seenChanged.notify_all();
      },
      nullptr);
  ASSERT_TRUE(guest.appendAsGuest({{1, "a"}, {2, "b"}}));
  {
    std::unique_lock lock(seenMutex);
    EXPECT_TRUE(seenChanged.wait_for(lock, std::chrono::seconds(10), [&] { return seen; }));
  }
  EXPECT_EQ(holder.adoptGuests(keep), 1U);
  ASSERT_TRUE(guest.appendAsGuest({{3, "c"}}));  // its first file is gone: a new one
  EXPECT_EQ(holder.adoptGuests([](const std::vector<OutboxRecord>&) { return false; }), 0U);
  EXPECT_EQ(holder.adoptGuests(keep), 1U);  // refused once, kept for the next look
  EXPECT_EQ(holder.adoptGuests(keep), 0U);
  EXPECT_EQ(taken, (std::vector<std::string>{"a", "b", "c"}));

  // A holder killed after it kept a file's records, before it removed the file: the next
  // holder takes only what the guest appended since.
  ASSERT_TRUE(guest.appendAsGuest({{4, "d"}}));
  holder.adoptGuests([&](const std::vector<OutboxRecord>& records) {
    keep(records);
    holder.release();  // the kill: the file stays
    return false;
  });
  ASSERT_TRUE(guest.appendAsGuest({{5, "e"}}));
  SqliteOutboxStore next(file());
  ASSERT_TRUE(next.open(reason)) << reason;
  taker = &next;
  EXPECT_EQ(next.adoptGuests(keep), 1U);
  EXPECT_EQ(taken, (std::vector<std::string>{"a", "b", "c", "d", "e"}));

  // A guest's forgetting takes back what it kept and the holder has not taken.
  ASSERT_TRUE(guest.appendAsGuest({{6, "f"}}));
  guest.removeOwnGuestFiles();
  EXPECT_EQ(next.adoptGuests(keep), 0U);
  // A forgetting begun here removes the files of every process, not only its own.
  ASSERT_TRUE(guest.appendAsGuest({{7, "g"}}));
  for (const auto& entry : std::filesystem::directory_iterator(dir / "Library"))
    if (entry.path().string().starts_with(file() + ".guest-"))
      std::filesystem::rename(entry.path(), file() + ".guest-1-00000000-1");  // another process's
  guest.removeEveryGuestFile();
  EXPECT_EQ(next.adoptGuests(keep), 0U);
}

// With every inotify instance of the user taken when the holder begins to watch, it still
// hears of a guest's file: it looks at the folder instead (a real wait, bounded).
TEST_F(OutboxDamageTest, AHolderWithoutInotifyStillHearsOfAGuest) {
  SqliteOutboxStore holder(file());
  SqliteOutboxStore guest(file());
  std::string reason;
  ASSERT_TRUE(holder.open(reason)) << reason;
  ASSERT_FALSE(guest.open(reason));
  // One descriptor kept free, whichever limit ends the taking (the user's instances or the
  // process's descriptors): the watch's own wake-up needs one.
  const int spare = ::dup(0);
  std::vector<int> taken;  // held for a moment only: other tests may want one
  for (int fd = 0; taken.size() < 100'000 && (fd = ::inotify_init1(IN_CLOEXEC)) >= 0;)
    taken.push_back(fd);
  ::close(spare);
  std::promise<void> seen;
  std::once_flag once;
  holder.watchFolder([&] { std::call_once(once, [&] { seen.set_value(); }); }, nullptr);
  for (const int fd : taken)
    ::close(fd);
  ASSERT_TRUE(guest.appendAsGuest({{1, "a"}}));
  EXPECT_EQ(seen.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  holder.unwatchFolder();
}

// Forgetting never waits for a guest file that is being taken: the taking may be this process's
// own, waiting for the outbox that the forgetting holds. The file goes at the next try.
TEST_F(OutboxDamageTest, ForgettingDoesNotWaitForAGuestFileBeingTaken) {
  SqliteOutboxStore holder(file());
  SqliteOutboxStore guest(file());
  std::string reason;
  ASSERT_TRUE(holder.open(reason)) << reason;
  ASSERT_FALSE(guest.open(reason));
  ASSERT_TRUE(guest.appendAsGuest({{1, "a"}}));
  bool forgotten = true;
  holder.adoptGuests([&](const std::vector<OutboxRecord>&) {
    forgotten = holder.destroy();  // while the guest file is locked for its taking
    return false;
  });
  EXPECT_FALSE(forgotten);
  EXPECT_TRUE(holder.destroy());
  for (const auto& entry : std::filesystem::directory_iterator(dir / "Library"))
    EXPECT_EQ(entry.path().filename().string().find(".guest-"), std::string::npos);
}

// A link in the database's place is never followed: what it points to keeps its mode and
// content, and the store refuses to open rather than write there.
TEST_F(OutboxDamageTest, ALinkInTheDatabasesPlaceIsNotFollowed) {
  std::filesystem::create_directories(dir / "Library");
  const std::string target = dir / "elsewhere";
  std::ofstream(target) << "not ours";
  std::filesystem::permissions(target, std::filesystem::perms(0644));
  std::filesystem::create_symlink(target, file());
  SqliteOutboxStore store(file());
  std::string reason;
  EXPECT_FALSE(store.open(reason));
  EXPECT_FALSE(reason.empty());
  EXPECT_EQ(std::filesystem::status(target).permissions(), std::filesystem::perms(0644));
  std::ifstream in(target);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "not ours");
  // A linked folder above the database is the data directory's own business: it opens.
  std::filesystem::create_directories(dir / "real");
  std::filesystem::create_directory_symlink(dir / "real", dir / "linked");
  SqliteOutboxStore throughFolder(dir / "linked/QuorvelOutbox.sqlite");
  EXPECT_TRUE(throughFolder.open(reason)) << reason;
}

}  // namespace
}  // namespace quorvel::platform
