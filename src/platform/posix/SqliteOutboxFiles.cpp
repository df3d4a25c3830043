// The files beside the outbox database: this process's intake files and their rotation, those an
// earlier process left (laid under this one's changes), the guest files of processes that could
// not hold the store, and the removal of all of them when the outbox is forgotten.
#include "platform/posix/SqliteOutboxStore.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/AtomicFile.h"
#include "platform/posix/OutboxSalvage.h"
#include "platform/posix/SqliteStatement.h"

namespace quorvel::platform {
namespace {

// Numbers the guest files of every store of the process: two trackers of one process that are
// both guests never make the same file.
std::atomic<std::uint64_t> processGuestNumber{0};

// With the process id, names this process's guest files apart from those of a dead process
// that had the same id: a holder's note of a file it was taking names the file, and must
// never match a new one. Made again in a forked child (siblings may come to have the same
// process id); the id and the token share one word, so that every thread of a process agrees
// on it without a lock, which a fork could leave held.
std::string processGuestToken() {
  static std::atomic<std::uint64_t> state{0};
  const auto pid = static_cast<std::uint32_t>(::getpid());
  std::uint64_t now = state.load();
  if (now >> 32 != pid) {
    std::random_device random;
    const std::uint64_t made = (std::uint64_t{pid} << 32) | random();
    if (!state.compare_exchange_strong(now, made))
      now = state.load();  // another thread of this process made it first
    else
      now = made;
  }
  char text[9];
  std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(now & 0xffffffffU));
  return text;
}

}  // namespace

std::vector<std::pair<std::uint64_t, std::string>> SqliteOutboxStore::intakeFiles() const {
  auto files = numberedBeside(path_, kIntakeSuffix, 18);
  std::sort(files.begin(), files.end());
  return files;
}

// Only the names of the intake files an earlier process left, and the database's highest
// number, are read at open: enough to number this process's records above theirs. Reading the
// files (megabytes after a kill in a burst) waits for the first read or sync().
bool SqliteOutboxStore::startIntakeLocked(std::string& reason) {
  constexpr int kIdShift = 32;
  toAdopt_ = intakeFiles();
  adopted_ = toAdopt_.empty();
  std::int64_t inDatabase = -1;
  if (SqliteStatement newest(db_, "SELECT max(id) FROM outbox");
      newest && sqlite3_step(newest.get()) == SQLITE_ROW &&
      sqlite3_column_type(newest.get(), 0) != SQLITE_NULL) {
    inDatabase = sqlite3_column_int64(newest.get(), 0);
  }
  const std::uint64_t onDisk = toAdopt_.empty() ? 0 : toAdopt_.back().first;
  std::uint64_t fromDatabase =
      inDatabase > 0 ? static_cast<std::uint64_t>(inDatabase) >> kIdShift : 0;
  // A damaged database not read back: each process numbered from the one before it, one
  // number a start, so a number past 2^29 is above every one it can hold, whatever part of it
  // a reading missed; the clock's seconds since 2020 (bounded) set two such starts apart.
  // Later processes number on from this one.
  if (unhealedAtOpen_) {
    constexpr std::int64_t k2020 = 1'577'836'800;
    constexpr std::uint64_t kUnhealedBase = std::uint64_t{1} << 29;
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    const auto since2020 = static_cast<std::uint64_t>(
        std::clamp<std::int64_t>(now - k2020, 0, (std::int64_t{1} << 28) - 1));
    fromDatabase = std::max(fromDatabase, kUnhealedBase + since2020);
  }
  // Above this store's own earlier files too: files opened again after the folder was emptied
  // under it hold records numbered from those.
  intakeNumber_ = std::max({onDisk, fromDatabase, intakeNumber_}) + 1;
  // Far beyond any real use (one number a second of writing, for decades); past it the floor
  // is read from the records instead.
  constexpr std::uint64_t kLastNumber = std::uint64_t{1} << 30;
  idFloor_ = intakeNumber_ < kLastNumber ? static_cast<std::int64_t>(intakeNumber_ << kIdShift) : 0;
  intake_ = OutboxIntake::create(path_ + kIntakeSuffix + std::to_string(intakeNumber_), reason);
  return intake_ != nullptr;
}

// An earlier process's changes are laid over the database in the order they were made, and
// moved into it by the first sync(), on its own thread. Should this process die first, the
// next one finds the same files and does the same, which is harmless: each change sets or
// removes a record by its number.
void SqliteOutboxStore::adoptLeftIntakes() noexcept {
  if (adopted_.load(std::memory_order_acquire))
    return;
  const std::lock_guard adopting(adoptMutex_);
  if (adopted_.load())
    return;
  try {
    PendingMap left;
    std::vector<std::string> files;
    std::vector<OutboxIntake::Entry> entries;
    for (const auto& [number, file] : toAdopt_) {
      entries.clear();
      const auto intake = OutboxIntake::adopt(file, entries);
      if (!intake)
        continue;  // unreadable now: it stays on the disk for a later start
      for (const auto& entry : entries)
        left.insert_or_assign(entry.id, Pending{intake, entry.place, entry.removed});
      files.push_back(file);
    }
    const std::lock_guard lock(intakeMutex_);
    if (intake_) {
      // No sync() ran yet (each one adopts first): `committing_` is empty, and this
      // process's changes, all newer, are in `pending_`, laid over these.
      committing_ = std::move(left);
      retired_.insert(retired_.begin(), files.begin(), files.end());
    }
    toAdopt_.clear();
    adopted_ = true;
  } catch (...) {
    // Out of memory: the next read or sync() tries again.
  }
}

// Each sync() starts a new intake file, so that the current one can go whole once what it
// holds is in the database.
void SqliteOutboxStore::rotateIntakeLocked() noexcept {
  std::string reason;
  const std::string current = path_ + kIntakeSuffix + std::to_string(intakeNumber_);
  auto fresh =
      OutboxIntake::create(path_ + kIntakeSuffix + std::to_string(intakeNumber_ + 1), reason);
  if (!fresh)
    return;  // the current one goes on growing until a later sync
  try {
    retired_.push_back(current);
  } catch (...) {
    return;
  }
  intake_ = std::move(fresh);
  ++intakeNumber_;
}

// A guest's records go to a file of its own: the holder takes a whole file at a time under its
// lock and removes it, and a guest that finds its file removed starts another, so that no
// record is written into a file already taken.
bool SqliteOutboxStore::appendAsGuest(const std::vector<OutboxChange>& changes) noexcept {
  try {
    const std::lock_guard lock(guestMutex_);
    if (released_)
      return false;
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (!guest_) {
        std::string reason;
        const std::string name = path_ + kGuestSuffix + std::to_string(::getpid()) + "-" +
                                 processGuestToken() + "-" + std::to_string(++processGuestNumber);
        guest_ = OutboxIntake::create(name, reason);
        if (!guest_)
          return false;
      }
      if (!guest_->lock())
        return false;
      if (guest_->removed()) {
        guest_->unlock();
        guest_.reset();
        continue;
      }
      std::vector<OutboxIntake::Place> places;
      const bool written = guest_->append(changes, places);
      guest_->unlock();
      return written;
    }
  } catch (...) {
  }
  return false;
}

std::optional<SqliteOutboxStore::TakingMark> SqliteOutboxStore::takingMark(
    bool& readable) noexcept {
  try {
    const auto first = loadPage(kTakingMark - 1, 1, readable);
    if (first.empty() || first.front().id != kTakingMark)
      return std::nullopt;
    const std::string& content = first.front().content;
    const auto newline = content.rfind('\n');
    if (newline == std::string::npos)
      return std::nullopt;
    return TakingMark{content.substr(0, newline), std::stoull(content.substr(newline + 1))};
  } catch (...) {
    return std::nullopt;  // unreadable: the file is taken whole, as before there was a mark
  }
}

std::size_t SqliteOutboxStore::adoptGuests(
    const std::function<bool(std::vector<OutboxRecord>)>& keep) noexcept {
  std::size_t taken = 0;
  try {
    bool readable = true;
    const auto mark = takingMark(readable);
    if (!readable)
      return 0;  // the mark unknown now: a file it names would be taken twice
    bool markDone = mark && ::access(mark->file.c_str(), F_OK) != 0;
    for (const auto& file : guestFiles()) {
      if (released_)
        break;  // no longer the holder
      std::vector<OutboxIntake::Entry> entries;
      const auto guest = OutboxIntake::adopt(file, entries);
      if (!guest || !guest->lock())
        continue;
      entries.clear();
      const auto locked = OutboxIntake::adopt(file, entries);  // read again under the lock
      const std::uint64_t takenBefore = mark && mark->file == file ? mark->length : 0;
      std::uint64_t end = 0;
      std::map<std::int64_t, OutboxIntake::Entry> latest;
      for (const auto& entry : entries) {
        end = std::max(end, entry.place.offset + entry.place.length);
        if (entry.place.offset >= takenBefore)
          latest.insert_or_assign(entry.id, entry);
      }
      std::vector<OutboxRecord> records;
      for (const auto& [id, entry] : latest) {
        OutboxRecord record{id, {}};
        if (!entry.removed && locked && locked->readAt(entry.place, record.content))
          records.push_back(std::move(record));
      }
      records.push_back({kTakingMark, file + "\n" + std::to_string(end)});
      if (!guest->removed() && keep(std::move(records))) {
        ++taken;
        if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
          // A folder that cannot be changed: the mark, which names this file, stays, so that
          // the next round takes only what the guest writes after it. It holds one file.
          guest->unlock();
          markDone = false;
          break;
        }
        markDone = true;
      }
      guest->unlock();
    }
    if (markDone)
      apply({{kTakingMark, std::nullopt}});  // the files it named are gone
  } catch (...) {
  }
  return taken;
}

void SqliteOutboxStore::watchFolder(std::function<void()> onGuest,
                                    std::function<void(std::string_view)> onOtherFile) noexcept {
  try {
    const std::lock_guard watching(watchMutex_);
    if (folderWatch_ || released_ || inheritedByFork())
      return;
    const std::filesystem::path database(path_);
    watchCall_ = [guestPrefix = database.filename().string() + kGuestSuffix,
                  onGuest = std::move(onGuest),
                  onOtherFile = std::move(onOtherFile)](std::string_view name) {
      const bool any = name.empty();  // events lost: either may have come
      if (any || name.starts_with(guestPrefix))
        onGuest();
      if ((any || !name.starts_with(guestPrefix)) && onOtherFile)
        onOtherFile(name);
    };
    folderWatch_ = NewFileWatch::start(database.parent_path().string(), watchCall_);
  } catch (...) {
    // Not watched: guests are taken at this holder's next write, or by the next holder.
  }
}

void SqliteOutboxStore::unwatchFolder() noexcept {
  const std::lock_guard watching(watchMutex_);
  folderWatch_.reset();
}

void SqliteOutboxStore::removeOwnGuestFiles() noexcept {
  try {
    const std::lock_guard lock(guestMutex_);
    guest_.reset();
    removeGuestFiles(std::string(kGuestSuffix) + std::to_string(::getpid()) + "-" +
                     processGuestToken() + "-");
  } catch (...) {
    // Out of memory: what is left goes with the next forgetting, or is taken by the holder.
  }
}

void SqliteOutboxStore::removeEveryGuestFile() noexcept {
  removeOwnGuestFiles();
  try {
    // A file being taken or written now stays: its epoch tells the holder.
    removeGuestFiles(kGuestSuffix);
  } catch (...) {
  }
}

std::vector<std::string> SqliteOutboxStore::guestFiles() const {
  return filesBeside(path_, kGuestSuffix);
}

bool SqliteOutboxStore::removeGuestFiles(const std::string& suffix) {
  bool removed = true;
  for (const auto& file : filesBeside(path_, suffix)) {
    std::vector<OutboxIntake::Entry> entries;
    const auto guest = OutboxIntake::adopt(file, entries);
    if (!guest)
      continue;
    // Under the file's lock, as the holder takes it: one being taken now is the holder's (and
    // goes with the holder's own forgetting), never half taken. Without waiting: the holder may
    // be this process's own taking of the file, which waits for the outbox that this forgetting
    // holds. A file held now is left to the next start.
    if (!guest->tryLock()) {
      removed = false;
      continue;
    }
    removed = (::unlink(file.c_str()) == 0 || errno == ENOENT) && removed;
    guest->unlock();
  }
  return removed;
}

bool SqliteOutboxStore::destroy() noexcept {
  if (inheritedByFork())
    return false;  // the parent's files
  {
    // No longer the holder: another process may take the folder, and its guests are its own.
    const std::lock_guard watching(watchMutex_);
    folderWatch_.reset();
  }
  const std::lock_guard lock(syncMutex_);
  // The lock is held until the files are gone, so that no other process opens them halfway.
  ParentOnlyDescriptor heldLock = std::move(lock_);
  close();
  // The intake and the log first: either, left without its database, would be read into a
  // new one.
  bool removed = true;
  try {
    for (const auto& [number, file] : intakeFiles())
      removed = (::unlink(file.c_str()) == 0 || errno == ENOENT) && removed;
    // What other processes kept for this one goes with it.
    removed = removeGuestFiles(kGuestSuffix) && removed;
  } catch (...) {
    removed = false;
  }
  // A damaged file set aside, or one being healed, holds reports too.
  try {
    for (const char* suffix : {".corrupt-", kHealingSuffix})
      for (const auto& file : filesBeside(path_, suffix))
        removed = (::unlink(file.c_str()) == 0 || errno == ENOENT) && removed;
  } catch (...) {
    removed = false;
  }
  {
    const std::lock_guard lock(markMutex_);
    removed = removeStartsMarksLocked() && removed;
  }
  for (const char* suffix : {"-wal", "-shm", kLaunchUnsentSuffix, kUnkeptSuffix, "", ".lock"}) {
    const std::string file = path_ + suffix;
    removed = (::unlink(file.c_str()) == 0 || errno == ENOENT) && removed;
  }
  readMarks();
  heldLock.reset();
  heldElsewhere_ = false;
  return removed;
}

}  // namespace quorvel::platform
