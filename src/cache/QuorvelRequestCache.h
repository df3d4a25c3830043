// QuorvelRequestCache: tracking requests that failed in transport, kept as files in the
// caches directory and replayed one at a time after the next request that reaches the server.
// A file is claimed (renamed) before its request goes, so that nothing is sent twice because
// a file could not be deleted.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <quorvel/Platform.h>

#include "cache/QuorvelRequestCacheData.h"

namespace quorvel {

class Log;

class QuorvelRequestCache : public std::enable_shared_from_this<QuorvelRequestCache> {
 public:
  // Hands a record to the tracker for sending (marked as coming from the cache).
  using Sender = std::function<void(const QuorvelRequestCacheData&)>;

  static constexpr std::uint64_t kMaxEntries = 41;
  static constexpr double kReferenceDate2001 = 978'307'200.0;

  QuorvelRequestCache(std::shared_ptr<const Platform> platform, std::shared_ptr<const Log> log,
                      Sender sender);

  std::optional<std::string> getCacheDirectoryPath();
  void initialize();
  // Stores one request as a file, unless the directory holds 41 entries already. Returns
  // the file's name (the record's cache key) when it was written.
  // `madeAt`: when the host's call made the report (now, when not given). `mayHaveReached`:
  // the failed copy may have reached the service, so that the file's replay is a repeat.
  std::optional<std::string> cacheRequest(const std::optional<QuorvelRequestCacheData>& request,
                                          std::optional<platform::TimePoint> madeAt = {},
                                          bool mayHaveReached = false);
  std::uint64_t getCacheSize();
  static std::uint64_t getCacheSize(const platform::FileSystem& fileSystem,
                                    const std::string& path);
  // Removes every file of the directory, whole or not: the install is being forgotten. False
  // when one could not be removed.
  bool removeAll();
  // Every readable record of the directory, claimed ones among them (the cache key is the
  // file's name). A file read whole that holds no request is removed and counted; one that
  // cannot be read (a passing error) stays.
  std::vector<QuorvelRequestCacheData> getCachedRequests();
  // Loads a batch and starts its replay 0.1 s later on the main queue.
  void processCache();
  // Replays the next record of the batch.
  void sendNextCachedEvents();
  // False when the record could not be handed over (no sender, or it threw).
  bool sendCachedRequest(const QuorvelRequestCacheData& request);
  // Removes the record's file: answered, or given up.
  void deleteRequest(const QuorvelRequestCacheData& request);
  // Gives a claimed record's file its plain name back: its send failed, it waits for a later
  // replay. `mayHaveReached`: the failed copy may have reached the service (the file says so
  // from then on).
  void releaseRequest(const QuorvelRequestCacheData& request, bool mayHaveReached = false);
  // A replay that a stop cut short: its file goes back under its own name (answered, it goes),
  // and the chain ends, so that the first answer once the library runs again starts a new one.
  // `mayHaveReached`: unanswered, the cut copy had been handed over.
  void abandonReplay(const QuorvelRequestCacheData& request, bool answered,
                     bool mayHaveReached = false);
  // Files removed because they held no readable request.
  std::uint64_t unreadableRemoved() const noexcept { return unreadable_.load(); }
  // The outbox's age bound holds for kept files too: one whose report was made longer ago is
  // removed when the folder is read, unsent, and counted. None until set.
  void setMaxAge(std::chrono::seconds maxAge) noexcept { maxAge_ = maxAge.count(); }
  std::uint64_t droppedOverAge() const noexcept { return overAge_.load(); }
  // The records of the current batch not yet handed over; nullopt when none was loaded.
  std::optional<std::vector<QuorvelRequestCacheData>> cachedRequests() const;

  // The file content for a record: "version=...\nurl=...\ndata=...".
  static std::string fileContent(const QuorvelRequestCacheData& request);

 private:
  std::shared_ptr<const Platform> platform_;
  std::shared_ptr<const Log> log_;
  Sender sender_;
  mutable std::recursive_mutex lock_;  // the lock on the cache object
  std::optional<std::vector<QuorvelRequestCacheData>> cachedRequests_;
  std::atomic<bool> isSendingCachedData_{false};
  // Renames the record's file to this process's claim (its cache key follows): only a claimed
  // file is sent. False when it cannot be renamed (a read-only folder): not sent by this
  // process, it waits for a start that can claim it.
  bool claim(QuorvelRequestCacheData& request);
  // Whether this process may claim the file: neither its own claim already, nor left out, nor
  // another running process's claim.
  bool mayClaim(const std::string& name) const;
  // Adds the line saying that the file's request may have reached the service.
  void markReached(const std::string& path);
  // This process's claims (file names); one whose file could not be deleted after its answer
  // stays here, never sent again by this process.
  std::set<std::string> claimed_;
  // Plain names this process cannot claim or delete: left out of its batches.
  std::set<std::string> unclaimable_;
  std::mutex pathMutex_;
  std::optional<std::string> cacheDirectoryPath_;
  std::atomic<bool> failedToInitialize_{false};
  // Files this process wrote into the folder, and the count at which a listing last found
  // nothing to replay: only this process writes there, so while the two are equal a fresh
  // answer need not list the folder again (it used to, once per answer).
  std::atomic<std::uint64_t> filesWritten_{0};
  std::atomic<std::uint64_t> foundNothingAt_{UINT64_MAX};
  std::atomic<std::uint64_t> unreadable_{0};
  std::atomic<std::int64_t> maxAge_{0};  // seconds; 0: no bound
  std::atomic<std::uint64_t> overAge_{0};
};

}  // namespace quorvel
