// The outbox on POSIX: an append-only intake file that each batch reaches in one write, and one
// SQLite database in write-ahead-log mode that sync() moves the intake's batches into; both
// beside the app's data, guarded by an advisory lock so that two processes never share (and
// never send or delete) each other's reports.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <quorvel/platform/OutboxStore.h>

#include "platform/ParentOnlyDescriptor.h"
#include "platform/posix/NewFileWatch.h"
#include "platform/posix/OutboxIntake.h"

struct sqlite3;

namespace quorvel::platform {

class SqliteOutboxStore final : public OutboxStore, public OutboxUnkeptStarts {
 public:
  // The database file is `path`; its lock file is `path` + ".lock", its intake files `path`
  // + ".intake-" and a number, a newer file a higher number.
  explicit SqliteOutboxStore(std::string path);
  ~SqliteOutboxStore() override;
  // A store of its own for each tracker, on the same files: the folder is held by a lock on an
  // open file, so a second tracker on one platform waits as a guest (as a second process
  // does) instead of numbering over the first one's records, and a tracker made after one
  // ended opens the folder again. A store of another kind is returned as it is.
  static std::shared_ptr<OutboxStore> forOneTracker(const std::shared_ptr<OutboxStore>& given);

  bool open(std::string& reason) noexcept override;
  // Also true once an open store found that another process locked the folder after its files
  // were removed and made again: this store then refuses writes, and open() tries again.
  bool heldByAnotherProcess() const noexcept override { return heldElsewhere_.load(); }
  bool apply(const std::vector<OutboxChange>& changes) noexcept override;
  std::vector<OutboxRecord> load(std::int64_t afterId, std::size_t limit) noexcept override;
  std::vector<OutboxRecord> loadPage(std::int64_t afterId, std::size_t limit,
                                     bool& complete) noexcept override;
  std::int64_t highestId() noexcept override;
  // Each process numbers its records from its first intake file's number times 2^32: above
  // what the database and every intake file left on the disk can hold, known from their
  // names and the database's highest number, without reading the files.
  std::int64_t idFloor() noexcept override;
  bool sync() noexcept override;
  bool destroy() noexcept override;
  void release() noexcept override;
  std::string lastError() const override;
  std::uint64_t unreadableRecords() const noexcept override { return unreadable_.load(); }
  // What the last healing did (the file set aside, the records saved), once; empty if none.
  std::string takeHealingNote() override;
  bool appendAsGuest(const std::vector<OutboxChange>& changes) noexcept override;
  std::size_t adoptGuests(
      const std::function<bool(std::vector<OutboxRecord>)>& keep) noexcept override;
  void watchFolder(std::function<void()> onGuest,
                   std::function<void(std::string_view)> onOtherFile) noexcept override;
  void unwatchFolder() noexcept override;
  void removeOwnGuestFiles() noexcept override;
  void removeEveryGuestFile() noexcept override;
  bool markCountersUnkept(bool unkept) noexcept override;
  bool countersUnkept() const noexcept override;
  bool markLaunchUnsent(bool unsent) noexcept override;
  bool launchUnsent() const noexcept override;
  int unkeptStarts() const noexcept override;
  bool markUnkeptStarts(int starts) noexcept override;

 private:
  static constexpr const char* kIntakeSuffix = ".intake-";
  static constexpr const char* kGuestSuffix = ".guest-";
  static constexpr const char* kHealingSuffix = ".healing";
  static constexpr const char* kUnkeptSuffix = ".unkept-counters";
  static constexpr const char* kLaunchUnsentSuffix = ".unkept-launch-unsent";
  // Creates or removes the empty file at the store's path plus `suffix`, synced.
  bool setMark(const char* suffix, bool set) noexcept;
  bool setMarkLocked(const char* suffix, bool set) noexcept;
  bool syncMarks() noexcept;
  // The file that says `starts` starts in a row gave out unkept counters (from 2 on).
  std::string startsMark(int starts) const;
  int unkeptStartsLocked() const;
  std::vector<int> startsMarksLocked() const;
  bool removeStartsMarksLocked() noexcept;
  void readMarks() noexcept;
  void remakeMarks() noexcept;
  // The marks this store made or found, and has not removed since; read and changed with the
  // files under `markMutex_`.
  mutable std::mutex markMutex_;
  mutable std::atomic<bool> countersMarked_{false};
  mutable std::atomic<bool> launchMarked_{false};
  mutable int startsMarked_ = 0;

  // Which guest file the holder was taking, and how much of it, written with the records it
  // took: a holder killed before it removed the file leaves this mark, and the next one takes
  // from that file only what was appended after it.
  static constexpr std::int64_t kTakingMark = -2;
  struct TakingMark {
    std::string file;
    std::uint64_t length = 0;
  };
  // `readable` false when the store could not be read now (the mark unknown).
  std::optional<TakingMark> takingMark(bool& readable) noexcept;
  // Removes the guest files whose names go on with `suffix` (forgetting); false when one was
  // held.
  bool removeGuestFiles(const std::string& suffix);
  // The guest files in the data directory, whichever process wrote them.
  std::vector<std::string> guestFiles() const;
  // A change in an intake file, not yet in the database.
  struct Pending {
    std::shared_ptr<const OutboxIntake> file;
    OutboxIntake::Place place;
    bool removed = false;
  };
  using PendingMap = std::map<std::int64_t, Pending>;

  bool exec(const char* sql) noexcept;
  // Whether this store still holds the folder: its lock file is the one at the path. A lock
  // file removed (the folder emptied under the process) is made and locked again; one another
  // process made and locked means it holds the folder now (`heldElsewhere_` set). `intakeMutex_`
  // held. `lockRemade`, if given, is set when the lock file had to be made again.
  bool stillHoldsLocked(bool* lockRemade = nullptr) noexcept;
  void close() noexcept;
  // `intakeMutex_` held by these.
  void closeLocked() noexcept;
  // Closes the database and the intake, the lock kept.
  void closeFilesLocked() noexcept;
  // Whether the database and the intake being written are still the files at their paths.
  bool filesInPlaceLocked() const noexcept;
  // The data folder emptied under the process (or the database or the intake removed alone):
  // what is written to the removed files would go with their last descriptor. The store opens
  // files at the path again, made anew, with every record the removed ones still hold. Takes
  // the locks of healLocked().
  void reopenIfMoved() noexcept;
  // True in a child made by fork() after this store was opened: it leaves the store alone.
  bool inheritedByFork() noexcept;
  void forgetInherited() noexcept;
  bool openDatabaseLocked(std::string& reason) noexcept;
  // Checks the table against the schema this build knows, migrating an older one; false with
  // `damage_` set when it is a newer or a foreign one.
  bool checkSchemaLocked(std::string& reason) noexcept;
  // Notes a failed statement's code: damage (not a passing fault) is healed.
  void noteFailureLocked(sqlite3* db, const char* what) noexcept;
  // Sets the damaged database aside and starts a fresh one with every record still readable;
  // `syncMutex_`, `adoptMutex_` and `intakeMutex_` held.
  bool healLocked(std::string& reason) noexcept;
  // A damaged page met by a read or a commit: healed unless a second look finds it sound.
  void healAfterDamage() noexcept;
  // Heals, or closes the database and leaves the healing to a later sync(); the locks of
  // healLocked() held.
  void healOrWaitLocked() noexcept;
  // Closes the database until the healing is tried again, a few syncs later.
  void waitToHealLocked(const std::string& reason) noexcept;
  // The healing that failed, tried again when its turn came.
  void healAgainIfDue() noexcept;
  // The intake files an earlier process left, oldest first.
  std::vector<std::pair<std::uint64_t, std::string>> intakeFiles() const;
  // Starts this process's intake file, numbered after those earlier processes left.
  bool startIntakeLocked(std::string& reason);
  // Lays what earlier processes left in their intake files under this process's changes, for
  // the next sync() to move into the database. Done once, by the first read or sync(), not by
  // open(): the files are read outside the intake's lock, so that this process's first
  // batches are written meanwhile.
  void adoptLeftIntakes() noexcept;
  // Starts a new intake file: the current one is retired; `intakeMutex_` held.
  void rotateIntakeLocked() noexcept;
  bool commitToDatabase(const PendingMap& changes) noexcept;
  // One move of the intake into the database and a checkpoint.
  bool syncOnce() noexcept;
  // The records after `afterId` that the database and the pending changes make together.
  // `failed` set when a read error cut the database's part short.
  std::vector<OutboxRecord> mergedPage(std::int64_t afterId, std::size_t limit, bool& failed);
  std::vector<OutboxRecord> databasePage(std::int64_t afterId, std::size_t limit, bool& failed);

  std::string path_;
  sqlite3* db_ = nullptr;                   // the reads: pages and the highest number
  std::pair<dev_t, ino_t> databaseFile_{};  // the file db_ opened
  // Records of removed files, for a reopening that failed to put in the files made again.
  std::vector<OutboxChange> carried_;
  std::mutex syncMutex_;
  sqlite3* syncDb_ = nullptr;  // sync()'s own connection: the commits and checkpoints
  ParentOnlyDescriptor lock_;
  std::atomic<bool> inherited_{false};  // read from the writer and the sync queues
  std::atomic<bool> heldElsewhere_{false};
  std::atomic<bool> released_{false};
  int damage_ = 0;                  // the SQLite code of damage met, until it is healed
  bool unhealedAtOpen_ = false;     // the database was damaged at open and could not be healed
  std::uint32_t healAttempts_ = 0;  // failed healings in a row; the database closed meanwhile
  std::chrono::steady_clock::time_point nextHeal_;  // the next try, not before
  std::atomic<bool> healPending_{false};            // read without a lock by every read and sync
  std::atomic<std::uint64_t> unreadable_{0};
  mutable std::mutex noteMutex_;
  std::string lastError_;
  std::string healingNote_;

  // This process's guest file, while another one holds the store: a new one each time the
  // holder took the last.
  std::mutex guestMutex_;
  std::shared_ptr<OutboxIntake> guest_;

  std::mutex adoptMutex_;  // taken before the intake's
  std::vector<std::pair<std::uint64_t, std::string>> toAdopt_;
  std::atomic<bool> adopted_{true};

  std::mutex intakeMutex_;
  std::shared_ptr<OutboxIntake> intake_;
  std::int64_t idFloor_ = 0;  // 0: not known without reading
  std::uint64_t intakeNumber_ = 0;
  // Intake files no longer appended to: every change in them is in `pending_` or `committing_`,
  // and they go once those are in the database.
  std::vector<std::string> retired_;
  PendingMap pending_;     // appended since the last sync() began
  PendingMap committing_;  // being moved into the database by sync() (or failed to be)

  // Last, so that it ends first: its thread calls out of the store, never into it.
  std::mutex watchMutex_;
  std::unique_ptr<NewFileWatch> folderWatch_;
  std::function<void(std::string_view)> watchCall_;  // what folderWatch_ calls
};

}  // namespace quorvel::platform
