// Durable storage for the reports the library has accepted and the service has not answered:
// numbered records of text, changed in batches, each batch all or nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

struct OutboxRecord {
  std::int64_t id = 0;
  std::string content;
};

// One change of a batch: `content` writes (or replaces) record `id`; nullopt removes it.
struct OutboxChange {
  std::int64_t id = 0;
  std::optional<std::string> content;
};

// Called from the library's outbox thread, one call at a time, except sync() and load(): they
// may run on another thread at the same time as the others, so that writes never wait for the
// disk, nor for a page of an earlier process's records being read.
class OutboxStore {
 public:
  OutboxStore() = default;
  OutboxStore(const OutboxStore&) = delete;
  OutboxStore& operator=(const OutboxStore&) = delete;
  virtual ~OutboxStore() = default;

  // False when the store cannot be used: its storage cannot be opened, or another process
  // holds it. `reason` then says why.
  virtual bool open(std::string& reason) noexcept = 0;
  // After a refused open(): true when the refusal was another process holding the store.
  virtual bool heldByAnotherProcess() const noexcept { return false; }
  // Applies the changes in order, all or none. Once it returns true they survive the death
  // of the process; `sync` makes them survive the machine's.
  virtual bool apply(const std::vector<OutboxChange>& changes) noexcept = 0;
  // The records with ids above `afterId`, oldest first, at most `limit` of them: a store
  // left large by an earlier process is read a page at a time, between this process's writes.
  virtual std::vector<OutboxRecord> load(std::int64_t afterId, std::size_t limit) noexcept = 0;
  // The highest id in the store; -1 when it is empty.
  virtual std::int64_t highestId() noexcept = 0;
  // A number above the id of every record the store holds when it opens: the library numbers
  // its new records from it. A store that can tell without reading its records answers at
  // once, so that the first batch of a process is written before an earlier one's records
  // were read.
  virtual std::int64_t idFloor() noexcept { return highestId() + 1; }
  virtual bool sync() noexcept = 0;
  // Removes the store with every file it keeps, so that nothing of its records is left on the
  // disk; a later open() makes a new, empty one. False when it cannot (the library then
  // removes the records one by one).
  virtual bool destroy() noexcept { return false; }
  // A mark that counters went out that the store could not keep (a full disk): set before
  // such a report leaves, cleared once the counters are kept again. It must hold where the
  // records cannot (an empty file's name needs no data block). False when it cannot be set or
  // cleared; a store that cannot keep it never reports one. Clearing it clears the launch's
  // mark below too.
  virtual bool markCountersUnkept(bool unkept) noexcept { return !unkept; }
  virtual bool countersUnkept() const noexcept { return false; }
  // Lets go of the storage for good (its files stay): the tracker that used it has ended, and
  // another may open the same storage at once. Every later call fails, open() included.
  virtual void release() noexcept {}
  // Why the last open(), apply() or sync() failed, for the log.
  virtual std::string lastError() const { return "write refused"; }
  // How many records the store found and could not read back since it opened (a damaged
  // file whose readable records it saved): counted as lost by the library.
  virtual std::uint64_t unreadableRecords() const noexcept { return 0; }
  // What the store did to heal itself (a damaged file set aside, its records saved), once,
  // for the log; empty when nothing happened since the last call.
  virtual std::string takeHealingNote() { return {}; }

  // While another process holds the store: keeps `changes` (records of reports this process
  // will not send) in a file of this process's own beside the store, for the holder to take.
  // False when it cannot; the library then keeps them in memory.
  virtual bool appendAsGuest(const std::vector<OutboxChange>& /*changes*/) noexcept {
    return false;
  }
  // For the holder: hands the records other processes kept that way to `keep`, one file at a
  // time, and removes a file once `keep` returned true (it made them its own). The last record
  // handed over has a negative id: the store's note of this taking, which `keep` applies in
  // the same batch as the records it keeps, so that a holder killed before the file was
  // removed does not leave them to be taken twice. The number of files taken.
  virtual std::size_t adoptGuests(
      const std::function<bool(std::vector<OutboxRecord>)>& /*keep*/) noexcept {
    return 0;
  }
  // For the holder: calls `onGuest`, from a thread of the store's own, when another process
  // begins keeping records for it, so that an idle holder takes them within a moment instead
  // of at its next write, and `onOtherFile` with the name of any other file made in the
  // store's folder (the library's markers live there too). A store that cannot tell never
  // calls them. Ends at release() and destroy(). Neither may wait for anything that calls
  // those.
  virtual void watchFolder(std::function<void()> /*onGuest*/,
                           std::function<void(std::string_view)> /*onOtherFile*/) noexcept {}
  // Ends what watchFolder() began, until it is called again.
  virtual void unwatchFolder() noexcept {}
  // For a process that kept records as a guest: removes the files it kept them in, whether
  // or not the holder took them yet (a forgetting: they are the forgotten install's).
  virtual void removeOwnGuestFiles() noexcept {}
  // As load(), with `complete` false when a passing fault (a failing read, a store closed
  // until it heals) cut the page short: the records it holds are sound, and those after them
  // are read later instead of being taken for the end. A store of the host's own built
  // against an older header is built again against this one.
  virtual std::vector<OutboxRecord> loadPage(std::int64_t afterId, std::size_t limit,
                                             bool& complete) noexcept {
    complete = true;
    return load(afterId, limit);
  }
  // As removeOwnGuestFiles(), for the files every process kept that way (a forgetting begun by
  // this process: they are all the forgotten install's). Last, so that a store built against
  // an older header keeps its table of calls.
  virtual void removeEveryGuestFile() noexcept { removeOwnGuestFiles(); }
  // A second mark beside markCountersUnkept()'s, set just after it and cleared before it: no
  // launch request (nor its attribution twin) numbered with a launch counter the store did
  // not keep has left yet; events only carry the launch they belong to. The launch
  // counter's gap shows (the first launch is the install), so a launch that never left is
  // numbered again at the next start, where one that may have reached the service is numbered
  // above. A store that cannot keep it never reports one: launches are then numbered above,
  // as with any unkept counter. Last, for the table of calls of stores built earlier.
  virtual bool markLaunchUnsent(bool unsent) noexcept { return !unsent; }
  virtual bool launchUnsent() const noexcept { return false; }
};

// What a store may add to markCountersUnkept()'s mark, by deriving from this class as well:
// how many starts in a row gave out counters it could not keep. Each start numbers above the
// kept counters by one reach more than the start before it, so that a disk full at several
// starts in a row never has two of them give the same counter; with the mark alone, every
// start after the first would number from the same place. The library asks for it by a
// dynamic_cast, so that a store built against an older header keeps its table of calls.
class OutboxUnkeptStarts {
 public:
  OutboxUnkeptStarts() = default;
  OutboxUnkeptStarts(const OutboxUnkeptStarts&) = delete;
  OutboxUnkeptStarts& operator=(const OutboxUnkeptStarts&) = delete;
  virtual ~OutboxUnkeptStarts() = default;

  // How many starts gave out unkept counters since they were last kept: 0 while the
  // counters' mark does not stand, at least 1 while it does.
  virtual int unkeptStarts() const noexcept = 0;
  // Records that `starts` starts did, before a report of the last of them leaves; never
  // lowers the count (clearing the counters' mark clears it). It must hold where the records
  // cannot, as the mark does. False when it cannot be recorded.
  virtual bool markUnkeptStarts(int starts) noexcept = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
