// What a heal saves from an outbox database with a few pages overwritten, judged against the
// records the database really held: an outbox-shaped table under churn (small and large
// records, removals, checkpoints now and then), copied with its log as a kill leaves it, three
// random pages past the header overwritten, then salvaged. Counts records saved, lost, brought
// back although removed, and saved with the wrong content. Figures, not a test.
//
// usage: quorvel_salvage [rounds (300)] [seed (1)]
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <string_view>

#include "platform/posix/OutboxSalvage.h"

namespace {

namespace fs = std::filesystem;
using quorvel::platform::salvageFile;

struct Tally {
  long long held = 0, saved = 0, removedBack = 0, wrong = 0, heals = 0;
};

class Churn {
 public:
  Churn(const std::string& file, bool zeroDeleted, unsigned seed) : random_(seed) {
    sqlite3_open(file.c_str(), &db_);
    const std::string setup = std::string("PRAGMA secure_delete=") + (zeroDeleted ? "ON" : "OFF") +
                              "; PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;"
                              "PRAGMA user_version=1; CREATE TABLE outbox (id INTEGER PRIMARY "
                              "KEY, content BLOB NOT NULL)";
    sqlite3_exec(db_, setup.c_str(), nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(db_, "INSERT INTO outbox VALUES (?1, ?2)", -1, &insert_, nullptr);
    sqlite3_prepare_v2(db_, "DELETE FROM outbox WHERE id = ?1", -1, &remove_, nullptr);
  }
  ~Churn() {
    sqlite3_finalize(insert_);
    sqlite3_finalize(remove_);
    sqlite3_close(db_);
  }

  // One transaction of new records and answered (oldest first, mostly) ones.
  void step() {
    sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr);
    for (auto n = random_() % 60; n > 0; --n) {
      const auto size = random_() % 50 == 0 ? 9000 : (random_() % 3 == 0 ? 1200 : 100);
      std::string content(size + random_() % 100, static_cast<char>('a' + random_() % 26));
      content += std::to_string(next_);
      sqlite3_bind_int64(insert_, 1, next_);
      sqlite3_bind_blob(insert_, 2, content.data(), static_cast<int>(content.size()),
                        SQLITE_TRANSIENT);
      sqlite3_step(insert_);
      sqlite3_reset(insert_);
      held_[next_++] = std::move(content);
    }
    for (auto n = random_() % 60; n > 0 && !held_.empty(); --n) {
      auto it = held_.begin();
      std::advance(it, static_cast<long>(random_() % std::min<std::size_t>(held_.size(), 80)));
      sqlite3_bind_int64(remove_, 1, it->first);
      sqlite3_step(remove_);
      sqlite3_reset(remove_);
      held_.erase(it);
    }
    sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    if (random_() % 7 == 0)
      sqlite3_exec(db_, "PRAGMA wal_checkpoint(PASSIVE)", nullptr, nullptr, nullptr);
  }

  const std::map<long long, std::string>& held() const { return held_; }
  std::mt19937_64& random() { return random_; }

 private:
  std::mt19937_64 random_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* remove_ = nullptr;
  std::map<long long, std::string> held_;
  long long next_ = 1;
};

// The file and its log as a kill leaves them, with three pages past the header overwritten.
void damagedCopy(const std::string& file, const std::string& copy, std::mt19937_64& random) {
  for (const char* suffix : {"", "-wal", "-shm"})
    fs::remove(copy + suffix);
  fs::copy_file(file, copy);
  if (fs::exists(file + "-wal"))
    fs::copy_file(file + "-wal", copy + "-wal");
  const auto pages = fs::file_size(copy) / 4096;
  std::fstream f(copy, std::ios::in | std::ios::out | std::ios::binary);
  for (int n = 0; n < 3 && pages > 1; ++n) {
    std::string junk(4096, '\0');
    for (auto& c : junk)
      c = static_cast<char>(random());
    f.seekp(static_cast<std::streamoff>((1 + random() % (pages - 1)) * 4096));
    f.write(junk.data(), 4096);
  }
}

Tally run(const fs::path& dir, bool zeroDeleted, int rounds, unsigned seed) {
  const std::string file = dir / "outbox.sqlite";
  const std::string copy = dir / "killed.sqlite";
  Tally t;
  Churn churn(file, zeroDeleted, seed);
  for (int round = 1; round <= rounds; ++round) {
    churn.step();
    if (round % 3 != 0)
      continue;
    damagedCopy(file, copy, churn.random());
    const auto salvage = salvageFile(copy);
    ++t.heals;
    t.held += static_cast<long long>(churn.held().size());
    for (const auto& record : salvage.records) {
      const auto it = churn.held().find(record.id);
      if (it == churn.held().end())
        ++t.removedBack;
      else if (it->second != record.content)
        ++t.wrong;
      else
        ++t.saved;
    }
  }
  return t;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string_view(argv[1]) == "--help") {
    std::puts("usage: quorvel_salvage [rounds (300)] [seed (1)]");
    return 0;
  }
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 300;
  const unsigned seed = argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : 1;
  char pattern[] = "/tmp/quorvel-salvage-XXXXXX";
  if (::mkdtemp(pattern) == nullptr)
    return 2;
  std::printf("%-22s %6s %9s %9s %7s %13s %6s\n", "deleted content", "heals", "held", "saved",
              "lost %", "removed back", "wrong");
  for (const bool zero : {true, false}) {
    const fs::path dir = fs::path(pattern) / (zero ? "zeroed" : "kept");
    fs::create_directories(dir);
    const Tally t = run(dir, zero, rounds, seed);
    std::printf("%-22s %6lld %9lld %9lld %7.2f %13lld %6lld\n",
                zero ? "zeroed (secure_delete)" : "left in place", t.heals, t.held, t.saved,
                t.held > 0 ? 100.0 * static_cast<double>(t.held - t.saved) / t.held : 0.0,
                t.removedBack, t.wrong);
  }
  fs::remove_all(pattern);
  return 0;
}
