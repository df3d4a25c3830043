// Outbox: every report a public call accepts is written to durable storage before it is
// sent, and stays there until the service has answered it.
//
// Why it exists: a report that lives only in memory between the host's call and the
// service's answer is lost when the process is killed, exits under load or meets a slow
// service. The kept-request folder (QuorvelRequestCache) only takes requests whose transport
// already failed, and only 41 of them; the outbox covers the whole way, from the call on.
//
// The host's thread only appends a small record of the call to a buffer; the outbox's own
// queue writes the buffer in one transaction per batch (what arrived while the previous
// batch was written: a group commit), syncs to
// the disk at most once a second (and at the move to the background and at exit), enforces
// the bounds, and replays what a previous process left unanswered.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <quorvel/Json.h>
#include <quorvel/Platform.h>

#include "cache/OutboxSlot.h"
#include "cache/OutboxStats.h"
#include "cache/QuorvelRequestCacheData.h"
#include "log/Log.h"
#include "platform/ForkGeneration.h"

namespace quorvel {

// What a report needs to be built later: the call that made it.
struct OutboxIntent {
  enum class Kind { launch, event, eventWithValues };
  Kind kind = Kind::event;
  std::string name;
  std::optional<std::string> value;  // event
  std::optional<Json> values;        // eventWithValues
};

class Outbox : public std::enable_shared_from_this<Outbox> {
 public:
  struct Limits {
    std::uint64_t maxBytes = std::uint64_t{16} * 1024 * 1024;
    std::chrono::seconds maxAge = std::chrono::hours(24 * 30);
  };

  // A report left by an earlier process: built (its request) or not (its intent).
  struct Leftover {
    OutboxSlotPtr slot;
    std::optional<OutboxIntent> intent;
    std::optional<QuorvelRequestCacheData> request;
    bool wasSent = false;  // its request may have reached the service already (unanswered)
  };

  // `store` may be null: the outbox then keeps nothing (and says so once).
  // The store's writes run on `queue`, its periodic syncs on `syncQueue`.
  Outbox(std::shared_ptr<platform::OutboxStore> store,
         std::shared_ptr<platform::DispatchQueue> queue,
         std::shared_ptr<platform::DispatchQueue> syncQueue,
         std::shared_ptr<const platform::Clock> clock, std::shared_ptr<const Log> log,
         Limits limits);
  ~Outbox();
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  void setLimits(Limits limits);

  // --- Any thread, cheap: the host's calls ------------------------------------------------
  // A new report made by a call at `at`.
  OutboxSlotPtr accept(OutboxIntent intent, platform::TimePoint at);
  // A report built without an earlier acceptance (a purchase report); built() follows.
  OutboxSlotPtr acceptBuilt();

  // Counters whose values a request carries ("iaecounter", the launch counter) are kept
  // with the requests, in the same transaction, so that a kill right after a send can never
  // give the next process the same value for another report.
  void noteCounter(const std::string& key, std::int64_t value);
  // The highest value kept for `key` (0 when none); waits until the store was read; nullopt
  // when a passing fault kept the store from being read, or it is out of reach for now. Out of
  // reach (the store would not open: a full disk) with an earlier process's mark of counters
  // it could not keep, `reachWhileUnread` says how far above what else it knows this process
  // numbers `key`; 0 otherwise.
  std::optional<std::int64_t> counterFloor(const std::string& key, std::int64_t& reachWhileUnread);
  // The report's request is built. `send` runs once it is written (on the outbox's queue):
  // a request never leaves before its record, so that a report the service may have seen
  // is never built a second time. While the store refuses writes (a full disk), it waits.
  void built(const OutboxSlotPtr& slot, const QuorvelRequestCacheData& request,
             std::function<void()> send);
  // The service answered 2xx: the report is done.
  void answered(const OutboxSlotPtr& slot);
  // The service answered 4xx (but 429): it will never take the report; done, counted apart.
  void refused(const OutboxSlotPtr& slot);
  // The service answered 5xx or 429: it did not take the report, which stays and goes again
  // after the backoff, and not before `retryAfter` (the answer's Retry-After) if it has one.
  void answeredRetryLater(const OutboxSlotPtr& slot, std::optional<std::chrono::seconds> retryAfter,
                          std::shared_ptr<void> hold = nullptr, bool reached = false);
  // The report leaves the outbox unsent, counted under its reason.
  // `handedOver`: not dropped, but kept as a file in the kept-request folder from now on.
  enum class DropReason { rule, bytes, age, handedOver };
  void dropped(const OutboxSlotPtr& slot, DropReason reason);
  // Its request failed in transport and was not handed to the kept-request folder: it waits
  // here and goes again after a backoff. `hold` is kept until the report settles.
  // `mayHaveArrived`: false when no connection was made, so that its next copy is no repeat.
  void failed(const OutboxSlotPtr& slot, std::shared_ptr<void> hold = nullptr,
              bool mayHaveArrived = true);
  // A kept-request file was answered: counted with this process's reports, as the service
  // counts it.
  void noteFolderAnswer(long status);
  // A copy of a report (or of a kept file) an earlier copy of which may have reached the service
  // goes to the transport: a repeat, withdrawn when its outcome shows that it never left (a stop
  // cancelled it before its hand-over, a host's queue held it, no connection was made).
  void noteRepeat(bool withdrawn) noexcept;

  // --- Replay -----------------------------------------------------------------------------
  // What sends a built report again (set once by the tracker). Called on the outbox's queue.
  using Resend = std::function<void(const OutboxSlotPtr&, const QuorvelRequestCacheData&,
                                    double secondsWaiting)>;
  void setResend(Resend resend);
  // Whether a request is also kept as a file of the kept-request folder. A process killed
  // between writing that file and removing the report here leaves both: the folder's copy
  // is the one that goes. Called on the outbox's queue.
  void setKeptElsewhere(std::function<bool(const QuorvelRequestCacheData&)> keptElsewhere);
  // Whether the sends a write releases are held back now (the user stopped the library): a
  // launch held back never left, so its counter is still the one to give again. Called on the
  // outbox's queue.
  void setSendsHeld(std::function<bool()> sendsHeld);
  // The sends are no longer held back: what failed or was held meanwhile goes now.
  void sendsResumed();
  // Told the name of each file made in the data directory while this process holds it (set
  // once by the tracker, before the store opens): its markers live there. Called with an
  // empty name once the watch has begun, for what was made before. Called on a thread of the
  // store's own; it must not wait for anything that ends the outbox.
  void setOnFolderFile(std::function<void(std::string_view)> onFolderFile);
  // Reads the install's epoch on the disk now (empty: none written yet; nothing: unreadable
  // now). What a guest keeps for the holder carries the epoch its reports were made under, and
  // the holder drops what carries another one: the reports of an install forgotten since, by
  // a guest that died before it saw the forgetting. Set once by the tracker, before any report.
  using InstallEpochNow = std::function<std::optional<std::string>()>;
  void setInstallEpoch(InstallEpochNow now);
  // Hands what an earlier process left to `take`, once, on the outbox's queue. Built reports
  // are resent through the Resend first; `take` gets the unbuilt ones.
  void resume(std::function<void(std::vector<Leftover>)> take);
  // A send succeeded: the backoff starts over.
  void transportRecovered();

  // --- Durability ---------------------------------------------------------------------------
  // Writes what is buffered and syncs, now, on the calling thread (exit, background).
  void drainAndSync() noexcept;
  // The same on the outbox's queue.
  void syncSoon();
  // Writes what is buffered, syncs, and lets the data directory go for good: the tracker
  // ends, and a new one (in this process or another) holds the directory at once. What comes
  // after (a late answer's removal) is not written: its report goes again at the next start.
  void release() noexcept;
  // The exit flush is over and the process ends within moments: an answer that still comes has
  // its removal written at once, on the answer's own thread, so that its report is not sent
  // again by the next start.
  void exitFlushOver() noexcept { exitFlushOver_ = true; }
  // Opens the store on the outbox's queue now, so that the first batch of a start is written
  // within milliseconds of its call instead of after the store's opening.
  void openSoon();
  // Tries the data directory now, if another process held it at the last try: an exit
  // flush that finds it free builds and sends within its bound what waited for it.
  void tryFreedLock() noexcept;

  // Forgets every report, in memory and in the store (this process's and an earlier one's),
  // and the kept counters: the install is being forgotten. Answers that come back later for
  // forgotten reports change nothing. On the calling thread.
  // False when the store could not be emptied.
  // `everyGuestFile`: the files every other process kept for the holder go too, not only this
  // one's (the forgetting began here: they are all the old install's).
  bool forgetAll(bool everyGuestFile = false) noexcept;

  OutboxStats stats() const;
  // The reports of this process and of earlier runs that are not settled yet: what a flush
  // that must say whether everything so far was delivered looks at again once it settled.
  // `earlierRunUnread`: records an earlier run left in the open store are still to be read
  // (they are not among the slots). None when the store was busy until `deadline` (a write
  // to a slow disk, a healing): a host's flush never waits past its bound.
  using Deadline = std::chrono::steady_clock::time_point;
  std::optional<std::vector<OutboxSlotPtr>> unsettledSlots(bool& earlierRunUnread,
                                                           Deadline deadline);
  // The unsettled reports an earlier run left, read so far and numbered above `after` (which
  // moves to the last one looked at: records are read in their order, so each look costs
  // only what was read since); `unread`: more are still to be read. None when the store was
  // busy until `deadline`.
  std::optional<std::vector<OutboxSlotPtr>> earlierRunSlots(bool& unread, std::int64_t& after,
                                                            Deadline deadline);
  // False when no store could be opened (nothing survives this process).
  bool durable() const noexcept { return durable_.load(); }
  // The unanswered reports with no record on disk (the disk refused it, or no store could be
  // used): what an exit now loses.
  std::uint64_t unansweredNotOnDisk() noexcept;
  // Another process holds this app's data directory: this one keeps its reports in memory,
  // unnumbered, and leaves the kept-request folder, and the reports in it, to that process.
  bool dataDirectoryHeldElsewhere() const noexcept { return heldElsewhere_.load(); }
  // Set while the last write failed (a full disk, a read-only folder): reports accepted now
  // go from memory, and a kill takes them with it.
  std::shared_ptr<const std::atomic<bool>> writesFailFlag() const { return writesFail_; }

  // --- Numbering ----------------------------------------------------------------------------
  // Whether this process may give its reports their counters now. The counters are the
  // install's, shared by every process of the app: only the process that holds the data
  // directory knows the last values given, so another one would repeat them and its reports
  // would be taken for repeats. False while another process holds it. The first call opens
  // the store, as the first counter read would.
  bool numberingIsSafe();
  // Posts `work` on `queue` once numbering is safe: at once when the store is this process's
  // (or none can be used at all), after the other process let the data directory go
  // otherwise. Meanwhile the store's lock is tried again with a backoff.
  void afterNumberingIsSafe(std::shared_ptr<platform::DispatchQueue> queue, platform::Work work);

 private:
  struct Put {
    OutboxSlotPtr slot;
    std::string content;  // empty: serialise `intent` on the queue
    std::optional<OutboxIntent> intent;
    // A built report's, for its retries: held by pointer, as most reports wait unbuilt and
    // thousands of them may wait at once.
    std::shared_ptr<const QuorvelRequestCacheData> request;
    std::function<void()> then;  // runs once the record is written
    bool carriesLaunchCounter = false;
  };
  struct Remove {
    OutboxSlotPtr slot;
  };
  using Op = std::variant<Put, Remove>;

  void enqueue(Op op);
  // After the exit flush: writes what is buffered now, on the calling thread.
  void writeNowIfExiting() noexcept;
  // The queue's side; `mutex_` for the store is held.
  void writeBufferedLocked();
  void openLocked();
  // Records an earlier run left are still to be read, or unknown: the store is not open yet
  // (then its opening is posted once).
  bool earlierRunUnreadLocked();
  std::atomic<bool> openPosted_{false};
  // `after` zero: at once; later after a page that a passing fault cut short.
  void scheduleLeftoverPage(std::chrono::nanoseconds after = std::chrono::nanoseconds::zero());
  void loadLeftoverPage();
  // A record an earlier process left; none when it cannot be read.
  static std::optional<Leftover> parseLeftover(const platform::OutboxRecord& record);
  void keepLeftoverLocked(Leftover left, std::size_t bytes);
  std::vector<Leftover> releaseLeftoversLocked();
  void dropExpiredLeftoversLocked();
  void replayChunkLocked();
  void runLocked(void (Outbox::*method)(),
                 std::chrono::nanoseconds after = std::chrono::nanoseconds::zero());
  // A task that runs `f(*this)` if the outbox still exists by then.
  template <class F>
  platform::Work whileAlive(F f) {
    return [weak = weak_from_this(), f = std::move(f)]() mutable {
      if (const auto self = weak.lock())
        f(*self);
    };
  }
  // The same with the store's lock held.
  template <class F>
  platform::Work whileAliveLocked(F f) {
    return whileAlive([f = std::move(f)](Outbox& self) mutable {
      const std::lock_guard lock(self.storeMutex_);
      f(self);
    });
  }
  // Drops a record from the held ones and their byte count.
  void forgetHeldLocked(std::int64_t id);
  void enforceBoundsLocked(std::vector<platform::OutboxChange>& changes);
  void scheduleRetry();
  void retryFailedLocked();
  void notBeforeAfterClockChangeLocked();
  // Marks the held report `slot` to go again with the next retry.
  // `reached`: whether the service may have the request (false: answered 5xx or 429, or no
  // connection made); unless an earlier copy may have reached it, the record then says so,
  // and a later start's copy is no repeat.
  void markForRetryLocked(const OutboxSlotPtr& slot, bool reached);
  struct Held;
  // A copy of `held` goes now: a record that says "unsent" is written again first, since the
  // copy may reach the service before a kill (it is then a repeat for the next start).
  void noteCopyLeavingLocked(Held& held, std::vector<platform::OutboxChange>& changes);
  // Drops every waiting report of this process past the age bound.
  void dropExpiredHeldLocked();
  // Writes `changes` after what earlier writes could not; false when the store refused them
  // (they are kept in `unwritten_`, and what they write goes from memory meanwhile).
  bool writeChangesLocked(std::vector<platform::OutboxChange>& changes);
  void scheduleSyncLocked();
  void scheduleRewrite();
  // The store in use, or the one another process holds, and its last error for the log.
  platform::OutboxStore* anyStoreLocked() const { return store_ ? store_.get() : lockedOut_.get(); }
  std::string storeErrorLocked() const {
    return anyStoreLocked() ? anyStoreLocked()->lastError() : std::string("no store");
  }
  // Counts what the store found unreadable since the last look.
  void noteUnreadableLocked();
  // While another process holds the store: the unbuilt reports of `batch` go to this process's
  // guest file for that process to send, and leave the batch.
  // False when the reports could not be kept for the holder (they stay in memory).
  bool handOverToHolderLocked(std::vector<Op>& batch);
  // The holder's side: what guests kept is made this process's own (new numbers, written),
  // then built and sent like an earlier run's reports. Outside the store's lock.
  void adoptGuests(const std::shared_ptr<platform::OutboxStore>& store);
  bool keepGuestRecordsLocked(std::vector<platform::OutboxRecord> records);
  // forgetAll()'s parts: what guests kept under the install consented to since a forgetting
  // this holder sees late, taken before the store is emptied and kept in the new one.
  std::vector<platform::OutboxRecord> takeRenewedGuestRecords();
  void keepRenewedGuestRecords(std::vector<platform::OutboxRecord> records);
  bool forgetAllLocked(bool everyGuestFile);
  // Looks for guests every 2 s for a minute after one was seen (an idle holder that saw none
  // never wakes); a sync looks each time too.
  void scheduleGuestWatch();
  // The store saw a guest begin (on its watch's thread): taken a moment later on the sync
  // queue, once what the guest writes first has landed. Takes no lock: release() waits for
  // that thread while holding the store's.
  void guestSeen() noexcept;
  // The folder is watched only while this holder writes nothing: while it writes, each sync
  // takes what guests kept and each call and send looks for a stop, and the watch's thread
  // would only add to the threads of a burst. It begins once nothing was written for
  // kWatchWhenIdle (so that a short-lived process, a tool or a forked worker, never starts
  // it) and ends at the next write.
  static constexpr std::chrono::seconds kWatchWhenIdle{1};
  void scheduleWatchLocked(std::chrono::nanoseconds after);
  void considerWatching(const std::shared_ptr<platform::OutboxStore>& store);
  // A batch is written now: the watch ends, and begins again once the writes have stopped.
  void noteWriteLocked();
  void countNotKeptLocked();
  // A sync's result: a failure is counted and said once an episode.
  void noteSyncLocked(bool synced);
  // Settles `slot` and counts it under `counter` (taken when that is `delivered_`, or
  // `handedOver_` to the holder); false when it was settled already.
  bool settleCounted(const OutboxSlotPtr& slot, std::atomic<std::uint64_t>& counter);
  // Takes the store's number floor; what earlier processes left is read later.
  void readStoreLocked();
  // Lays the kept counters read from the store (record 0, if it is there) under this
  // process's.
  void mergeCountersLocked(const std::vector<platform::OutboxRecord>& first);
  std::int64_t counterLocked(const std::string& key) const;
  // After a failed write that held counters: the store's mark for the next start.
  void markUnkeptCountersLocked();
  void noteLaunchLeavingLocked(bool kept);
  std::int64_t reachWhileUnreadLocked(const std::string& key);
  int unkeptStartsLocked(const platform::OutboxStore& store);
  void logCountersMayRepeatOnce();
  // Record 0 was written: the counters given out are kept.
  void noteCountersKeptLocked();
  void scheduleLockRetry();
  void retryLockLocked();
  // Opens the store if the other process let it go. False while it still holds it; true
  // once the wait is over, with the store or without one (the reports stay in memory).
  bool takeFreedLockLocked();
  // The open store found that another process took the data directory (its files were
  // removed and that process made them again): this one stops writing and numbering at once,
  // hands its unbuilt reports to that process as a guest would, and keeps its built ones in
  // memory (written once it holds the directory again); the lock is tried again.
  void stepDownIfTakenLocked();
  // Writes what this process kept in memory while another one held the store, under numbers
  // after the store's own.
  void writeHeldLocked();
  // Posts the work that waited for numbering; `storeMutex_` is held.
  void releaseNumberingLocked();
  // `epoch`: the install's, for a report kept for the holder.
  static std::string serialise(const Put& put, const std::string& epoch = {});
  // The install epoch a guest's record was made under (empty: before any forgetting).
  static std::string recordEpoch(const platform::OutboxRecord& record);
  // A built report's record: a one-line head, then the body's bytes as they are.
  static std::string requestRecord(platform::TimePoint at, const QuorvelRequestCacheData& request,
                                   bool reached);

  std::shared_ptr<platform::OutboxStore> store_;
  std::shared_ptr<platform::DispatchQueue> queue_;
  std::shared_ptr<platform::DispatchQueue> syncQueue_;
  std::shared_ptr<const platform::Clock> clock_;
  std::shared_ptr<const Log> log_;

  // The buffer the host's thread appends to; swapped out by the writer.
  mutable std::mutex bufferMutex_;
  std::vector<Op> buffer_;
  std::map<std::string, std::int64_t> noted_;      // counters noted since the last batch
  std::atomic<bool> writeScheduled_{false};        // within the batch window
  std::atomic<bool> promptWriteScheduled_{false};  // at once: a request waits for it
  std::atomic<bool> exitFlushOver_{false};

  // The writer's state.
  std::mutex storeMutex_;
  // The store's lock, tried until `deadline`: a host's flush waits for it no longer than its
  // own bound. (Polled: a timed mutex's wait is not seen by ThreadSanitizer here.)
  std::unique_lock<std::mutex> storeLockBy(Deadline deadline);
  bool opened_ = false;
  bool released_ = false;  // the directory was let go: nothing is written or opened again
  std::vector<Op> spareBuffer_;
  Json counters_ = Json::object();  // the kept counters (record 0)
  bool countersDirty_ = false;
  bool countersRead_ = false;           // record 0 of the store was read
  Json keptCounters_ = Json::object();  // record 0 as the store last took it
  bool countersUnkeptMarked_ = false;   // the store's mark of counters not kept is set
  bool launchUnsentMarked_ = false;     // and its mark that no launch of those has left yet
  bool launchLeftUnkept_ = false;       // a launch counter left since the counters were kept
  bool ownUnkeptMark_ = false;          // this process made the counters' mark, none stood
  // How many earlier starts in a row gave out unkept counters, as this process found when it
  // numbered above them; and whether the store now counts this one too.
  std::optional<int> unkeptStartsRead_;
  bool unkeptStartsRaised_ = false;
  bool unkeptCountersLogged_ = false;
  std::int64_t lastId_ = 0;
  struct Held {
    OutboxSlotPtr slot;
    std::size_t bytes = 0;
    std::shared_ptr<const QuorvelRequestCacheData> request;  // built
    bool failed = false;
    bool onDisk = false;   // a record of it was written: its removal must be written too
    bool notKept = false;  // counted once as not kept
    bool unsent = false;   // its record says that no copy can have reached the service
  };
  std::map<std::int64_t, Held> held_;  // by id: oldest first
  std::uint64_t heldBytes_ = 0;
  std::vector<Leftover> leftovers_;     // read, not yet released by resume()
  std::int64_t leftoversEnd_ = 0;       // the highest number an earlier process left
  std::int64_t loadedUpTo_ = 0;         // read so far, up to this number
  std::uint64_t forgetGeneration_ = 0;  // one more at each forgetting
  std::function<void(std::vector<Leftover>)> take_;
  std::deque<Leftover> replays_;  // built leftovers not yet sent again
  std::atomic<std::size_t> replaysInFlight_{0};
  std::atomic<bool> replayChunkScheduled_{false};
  void replayCameBack(const OutboxSlotPtr& slot);
  bool resumed_ = false;
  bool overBoundLogged_ = false;
  platform::TimePoint lastSync_{};
  bool syncScheduled_ = false;
  Limits limits_;
  Resend resend_;
  std::function<bool(const QuorvelRequestCacheData&)> keptElsewhere_;
  std::function<bool()> sendsHeld_;
  std::function<void(std::string_view)> onFolderFile_;
  InstallEpochNow installEpochNow_;
  std::string epoch_;  // the install this outbox's reports were made under
  // A forgetting this process has not carried out yet: what it holds is the old install's, and
  // goes into no file that a kill would leave for the next holder (neither a guest file nor
  // the store, which the forgetting freed). False when the epoch cannot be read now.
  bool epochStaleLocked() const;
  int retryAttempt_ = 0;
  bool retryScheduled_ = false;
  std::shared_ptr<platform::OutboxStore> lockedOut_;  // held by another process: tried again
  // Changes the store has not taken yet, by number (apart from `held_`, whose entries a burst
  // makes by the thousand): while another process holds the store, or while writes fail (a
  // full or read-only disk). Written, before anything newer, once the store takes writes.
  std::map<std::int64_t, std::optional<std::string>> unwritten_;
  bool rewriteScheduled_ = false;
  int rewriteAttempt_ = 0;
  int leftoverPageAttempt_ = 0;  // pages cut short in a row
  std::uint64_t storeUnreadable_ = 0;
  platform::TimePoint guestWatchUntil_{};
  bool guestWatchScheduled_ = false;
  std::atomic<bool> guestTakingScheduled_{false};
  bool watching_ = false;
  bool watchScheduled_ = false;
  platform::TimePoint lastWrite_{};
  bool notKeptLogged_ = false;
  bool syncFailureLogged_ = false;
  platform::TimePoint notBefore_{};            // the service's Retry-After: no retry before it
  platform::TimePoint notBeforeSetAt_{};       // when it was set, and
  std::chrono::milliseconds notBeforeWait_{};  // the wait it named
  int lockAttempt_ = 0;
  std::vector<std::pair<std::shared_ptr<platform::DispatchQueue>, platform::Work>>
      awaitingNumbering_;
  std::atomic<bool> numberingSafe_{false};

  const std::uint64_t forkGeneration_ = platform::forkGeneration();
  std::atomic<bool> durable_{true};
  std::atomic<bool> heldElsewhere_{false};
  const std::shared_ptr<std::atomic<bool>> writesFail_ = std::make_shared<std::atomic<bool>>(false);
  std::atomic<std::uint64_t> accepted_{0};
  std::atomic<std::uint64_t> delivered_{0};
  std::atomic<std::uint64_t> refused_{0};
  std::atomic<std::uint64_t> retrying_{0};
  std::atomic<std::uint64_t> notKept_{0};
  std::atomic<std::uint64_t> droppedUnreadable_{0};
  std::atomic<std::uint64_t> waiting_{0};
  std::atomic<std::uint64_t> droppedForBytes_{0};
  std::atomic<std::uint64_t> droppedForAge_{0};
  std::atomic<std::uint64_t> droppedByRule_{0};
  std::atomic<std::uint64_t> repeated_{0};
  std::atomic<std::uint64_t> handedOver_{0};
};

}  // namespace quorvel
