// The kept-request folder: writing a failed request as a file, claiming one (renamed) before it
// is sent again, replaying them one at a time, and the bound on how many are kept.
#include "cache/QuorvelRequestCache.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <quorvel/Version.h>

#include "cache/KeptFileNames.h"
#include "log/Log.h"
#include "util/Trim.h"
#include "util/WorkContext.h"

namespace quorvel {
namespace {

using namespace kept_files;

constexpr const char* kDirectoryName = "QuorvelCache";
// Appended to a kept file whose request may have reached the service already (its transfer
// failed after it was made): its replay is a repeat. Readers that do not know it skip it.
constexpr std::string_view kReachedLine = "\nsent=1";

// Splits at every newline character: LF, CR, VT, FF, NEL, LINE and PARAGRAPH SEPARATOR.
std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string current;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    std::size_t skip = 0;
    if (c == '\n' || c == '\r' || c == '\v' || c == '\f') {
      skip = 1;
    } else if (c == 0xC2 && i + 1 < text.size() &&
               static_cast<unsigned char>(text[i + 1]) == 0x85) {
      skip = 2;
    } else if (c == 0xE2 && i + 2 < text.size() &&
               static_cast<unsigned char>(text[i + 1]) == 0x80 &&
               (static_cast<unsigned char>(text[i + 2]) == 0xA8 ||
                static_cast<unsigned char>(text[i + 2]) == 0xA9)) {
      skip = 3;
    }
    if (skip > 0) {
      lines.push_back(std::move(current));
      current.clear();
      i += skip - 1;
    } else {
      current.push_back(text[i]);
    }
  }
  lines.push_back(std::move(current));
  return lines;
}

// The leading decimal number of a text, as the platform's doubleValue reads it; 0 if none.
double leadingDouble(const std::string& s) {
  std::size_t i = s.find_first_not_of(" \t");
  if (i == std::string::npos)
    return 0;
  const std::size_t start = i;
  if (s[i] == '+' || s[i] == '-')
    ++i;
  while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])))
    ++i;
  if (i < s.size() && s[i] == '.') {
    ++i;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])))
      ++i;
  }
  try {
    return std::stod(s.substr(start, i - start));
  } catch (...) {
    return 0;
  }
}

// One written to within the last minute may belong to a write under way in another process
// (a second process on the same data) and stays.
void removeStrayTempFiles(platform::FileSystem& fs, const std::string& directory,
                          platform::TimePoint now, const Log& log) {
  const auto names = fs.contentsOfDirectory(directory);
  for (const auto& name : names.value_or(std::vector<std::string>{})) {
    if (!isTempFile(name))
      continue;
    std::string path = directory;
    path.append("/").append(name);
    if (const auto modified = fs.modificationDate(path);
        modified && now - *modified < std::chrono::minutes(1))
      continue;
    fs.removeFile(path);
    log.log(kLogDebug, "-[QuorvelRequestCache getCacheDirectoryPath]",
            "removed %@, left by a write that did not finish", name);
  }
}

double secondsSince2001(platform::TimePoint t) {
  return platform::secondsSince1970(t) - QuorvelRequestCache::kReferenceDate2001;
}

}  // namespace

QuorvelRequestCache::QuorvelRequestCache(std::shared_ptr<const Platform> platform,
                                         std::shared_ptr<const Log> log, Sender sender)
    : platform_(std::move(platform)), log_(std::move(log)), sender_(std::move(sender)) {}

std::optional<std::string> QuorvelRequestCache::getCacheDirectoryPath() {
  static constexpr const char* kMethod = "-[QuorvelRequestCache getCacheDirectoryPath]";
  std::string path;
  {
    std::lock_guard guard(pathMutex_);
    if (cacheDirectoryPath_)
      return cacheDirectoryPath_;
    const std::string caches = platform_->fileSystem->cachesDirectory();
    if (caches.empty()) {
      log_->log(kLogWarning, kMethod, "warn: QuorvelCache paths size is 0");
      return std::nullopt;
    }
    path = caches + "/" + kDirectoryName;
    // Before the path is handed out, so that no write of this process can be under way.
    removeStrayTempFiles(*platform_->fileSystem, path, platform_->clock->now(), *log_);
    // Stored before anything else: later calls return it without trying again.
    cacheDirectoryPath_ = path;
  }
  auto& fs = *platform_->fileSystem;
  if (!fs.fileExists(path) && !fs.createDirectory(path)) {
    log_->log(kLogError, kMethod, "[QuorvelCache Directory] %@",
              "could not create the directory " + path);
    return std::nullopt;
  }
  log_->log(kLogDebug, kMethod, "cache dir: %@", path);
  return path;
}

void QuorvelRequestCache::initialize() {
  const auto path = getCacheDirectoryPath();
  auto& fs = *platform_->fileSystem;
  if (!path || (!fs.fileExists(*path) && !fs.createDirectory(*path))) {
    log_->log(kLogError, "-[QuorvelRequestCache initialize]", "failed to create cache dir: %@",
              "could not create " + path.value_or(std::string("the caches directory")));
    failedToInitialize_ = true;
  }
  std::lock_guard guard(lock_);
  cachedRequests_.reset();
  foundNothingAt_ = UINT64_MAX;
}

std::uint64_t QuorvelRequestCache::getCacheSize(const platform::FileSystem& fileSystem,
                                                const std::string& path) {
  const auto names = fileSystem.contentsOfDirectory(path);
  return names
             ? static_cast<std::uint64_t>(std::count_if(names->begin(), names->end(), isCacheEntry))
             : 0;
}

std::uint64_t QuorvelRequestCache::getCacheSize() {
  const auto path = getCacheDirectoryPath();
  return path ? getCacheSize(*platform_->fileSystem, *path) : 0;
}

std::string QuorvelRequestCache::fileContent(const QuorvelRequestCacheData& r) {
  return format("version=%@\nurl=%@\ndata=%@", r.sdkVersion(), r.requestURL(),
                r.postDataAsString());
}

std::optional<std::string> QuorvelRequestCache::cacheRequest(
    const std::optional<QuorvelRequestCacheData>& request,
    std::optional<platform::TimePoint> madeAt, bool mayHaveReached) {
  static constexpr const char* kMethod = "-[QuorvelRequestCache cacheRequest:]";
  if (!request)
    return std::nullopt;
  const auto directory = getCacheDirectoryPath();
  const auto names = directory ? platform_->fileSystem->contentsOfDirectory(*directory)
                               : std::optional<std::vector<std::string>>();
  std::set<std::string> taken;  // a claimed file takes its plain name back after a failure
  for (const auto& name : names.value_or(std::vector<std::string>{}))
    if (isCacheEntry(name))
      taken.insert(plainName(name));
  const std::uint64_t count = taken.size();
  if (count >= kMaxEntries) {
    log_->log(kLogDebug, kMethod, "Cache reached limit - not caching request....");
    return std::nullopt;
  }
  log_->log(kLogDebug, kMethod, "Caching request...(cache size: %d)", count);
  auto& fs = *platform_->fileSystem;
  // The name is the time the report was made (its call): files replay in name order, and two
  // requests that fail at once come back in either order. A name already taken moves on by a
  // microsecond.
  const auto now = platform_->clock->now();
  double seconds = secondsSince2001(madeAt ? std::min(*madeAt, now) : now);
  std::string name = format("%f.qv", seconds);
  for (int i = 0;
       i < 1000 && directory && (taken.count(name) > 0 || fs.fileExists(*directory + "/" + name));
       ++i) {
    seconds += 0.000001;
    name = format("%f.qv", seconds);
  }
  const std::string path = directory.value_or(std::string()) + "/" + name;
  std::string content = fileContent(*request);
  if (mayHaveReached)
    content += kReachedLine;
  std::string reason;
  if (!directory || !fs.writeFileAtomically(path, Bytes(content.begin(), content.end()), &reason)) {
    log_->log(kLogError, kMethod, "Error writing file at %@\n%@", path,
              reason.empty() ? std::string("the cache directory is not available") : reason);
    return std::nullopt;
  }
  filesWritten_.fetch_add(1);
  return path.substr(directory->size() + 1);
}

std::vector<QuorvelRequestCacheData> QuorvelRequestCache::getCachedRequests() {
  std::vector<QuorvelRequestCacheData> result;
  const auto directory = getCacheDirectoryPath();
  if (!directory)
    return result;
  auto& fs = *platform_->fileSystem;
  const auto names = fs.contentsOfDirectory(*directory);
  if (!names)
    return result;
  const double now = secondsSince2001(platform_->clock->now());
  const auto maxAge = static_cast<double>(maxAge_.load());
  std::size_t overAge = 0;
  for (const auto& name : *names) {
    if (!isCacheEntry(name))
      continue;
    // A name without a time says nothing of its age. A file another process is sending is
    // that one's to drop.
    const double created = leadingDouble(name.substr(0, name.rfind(".qv")));
    if (maxAge > 0 && created > 0 && now - created > maxAge && mayClaim(name) &&
        fs.removeFile(*directory + "/" + name)) {
      ++overAge;
      continue;
    }
    const auto bytes = fs.readFile(*directory + "/" + name);
    const std::string text = bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
    QuorvelRequestCacheData record;
    for (const auto& line : bytes ? splitLines(text) : std::vector<std::string>{}) {
      record.setCacheKey(name);
      if (line.empty())
        continue;
      if (line.rfind("url=", 0) == 0) {
        record.setRequestURL(trimBlanksAndTabs(line.substr(4)) +
                             format("&timeincache=%f", now - created));
      } else if (line.rfind("version=", 0) == 0) {
        record.setSdkVersion(trimBlanksAndTabs(line.substr(8)));
      } else if (line.rfind("data=", 0) == 0) {
        record.stringToPostData(trimBlanksAndTabs(line.substr(5)));
      } else if (line == kReachedLine.substr(1)) {
        record.setMayHaveReached(true);
      }
    }
    if (record.requestURL() && record.postData()) {
      record.setCacheKey(name);
      // A claim left by a process that ended was on the wire when it ended.
      if (claimerOf(name) != 0)
        record.setMayHaveReached(true);
      result.push_back(std::move(record));
    } else if (bytes) {
      // Read whole but not a request (files are written whole, by rename): damaged or
      // foreign. Left there it would be read at every replay and hold one of the folder's
      // places for good.
      const std::string path = *directory + "/" + name;
      if (fs.removeFile(path)) {
        unreadable_.fetch_add(1, std::memory_order_relaxed);
        log_->log(kLogWarning, "-[QuorvelRequestCache getCachedRequests]",
                  "Quorvel: kept request %@ could not be read; removed", name);
      }
    }
  }
  if (overAge > 0) {
    overAge_.fetch_add(overAge, std::memory_order_relaxed);
    log_->log(kLogWarning, "-[QuorvelRequestCache getCachedRequests]",
              "Quorvel: %lu kept requests older than %lld s dropped",
              static_cast<unsigned long>(overAge), static_cast<long long>(maxAge));
  }
  return result;
}

bool QuorvelRequestCache::removeAll() {
  return platform_->fileSystem->removeFilesIn(platform_->fileSystem->cachesDirectory() + "/" +
                                              std::string(kDirectoryName));
}

void QuorvelRequestCache::processCache() {
  if (isSendingCachedData_)
    return;
  {
    std::lock_guard guard(lock_);
    if (cachedRequests_ && !cachedRequests_->empty())
      return;  // a batch is being replayed
  }
  if (failedToInitialize_)
    initialize();
  const std::uint64_t written = filesWritten_.load();
  if (foundNothingAt_.load() == written)
    return;
  std::size_t loaded = 0;
  {
    auto batch = getCachedRequests();
    std::erase_if(batch, [this](const QuorvelRequestCacheData& r) {
      return !mayClaim(r.cacheKey().value_or(std::string()));
    });
    if (batch.empty())
      foundNothingAt_ = written;
    std::lock_guard guard(lock_);
    cachedRequests_ = std::move(batch);
    loaded = cachedRequests_->size();
    // Set while a batch is on its way, until the answer to its last request: the batch is
    // empty as soon as that request is handed over, and a fresh answer arriving meanwhile
    // would otherwise load its file again and send it a second time.
    if (loaded > 0)
      isSendingCachedData_ = true;
  }
  log_->log(kLogDebug, "-[QuorvelRequestCache processCache]", "Cache size %d", loaded);
  if (loaded == 0)
    return;  // nothing to replay: no timer either
  auto self = shared_from_this();
  // A replay belongs to the work that started it, so that a flush waits for it too.
  platform_->dispatcher->mainQueue()->asyncAfter(
      std::chrono::milliseconds(100),
      inCurrentWorkContext([self] { self->sendNextCachedEvents(); }));
}

void QuorvelRequestCache::sendNextCachedEvents() {
  static constexpr const char* kMethod = "-[QuorvelRequestCache sendNextCachedEvents]";
  std::lock_guard guard(lock_);
  if (cachedRequests_ && cachedRequests_->empty()) {
    isSendingCachedData_ = false;
    return;
  }
  try {
    log_->log(kLogDebug, kMethod, "fetch requestData ...");
    if (!cachedRequests_ || cachedRequests_->empty())
      return;
    // Out of the batch as soon as it is handed over (or cannot be claimed); its file stays,
    // claimed, until answered.
    bool started = false;
    while (!started && !cachedRequests_->empty()) {
      QuorvelRequestCacheData next = cachedRequests_->front();
      cachedRequests_->erase(cachedRequests_->begin());
      if (!claim(next))
        continue;
      started = sendCachedRequest(next);
      if (!started)
        releaseRequest(next);
    }
    // No answer will come to move the chain on: a later answer starts a new one.
    if (!started && cachedRequests_->empty())
      isSendingCachedData_ = false;
  } catch (const std::exception& e) {
    log_->log(kLogError, kMethod, "Error fetching requestData: %@", e.what());
  }
}

bool QuorvelRequestCache::sendCachedRequest(const QuorvelRequestCacheData& request) {
  try {
    if (sender_)
      sender_(request);
    return sender_ != nullptr;
  } catch (...) {
    log_->log(kLogError, "-[QuorvelRequestCache sendCachedRequest:]",
              "failed to start connection %@", request.requestURL());
    return false;
  }
}

void QuorvelRequestCache::deleteRequest(const QuorvelRequestCacheData& request) {
  const auto directory = getCacheDirectoryPath();
  const std::string name = request.cacheKey().value_or(std::string());
  const std::string path = directory.value_or(std::string()) + "/" + name;
  std::string reason;
  if (platform_->fileSystem->removeFile(path, &reason)) {
    std::lock_guard guard(lock_);
    claimed_.erase(name);
    return;
  }
  log_->log(kLogError, "-[QuorvelRequestCache deleteRequest:]", "Error deleting file at %@\n%@",
            path, reason);
  // Answered (or given up) all the same. A claimed file stays this process's claim, never
  // sent again by it; a plain one is left out of this process's batches.
  std::lock_guard guard(lock_);
  if (claimed_.count(name) == 0)
    unclaimable_.insert(plainName(name));
}

bool QuorvelRequestCache::claim(QuorvelRequestCacheData& request) {
  const auto directory = getCacheDirectoryPath();
  const std::string name = request.cacheKey().value_or(std::string());
  if (!directory || name.empty())
    return false;
  const std::string claimed =
      plainName(name) + std::string(kClaimMark) + std::to_string(::getpid());
  std::string reason;
  if (!platform_->fileSystem->moveFile(*directory + "/" + name, *directory + "/" + claimed,
                                       &reason)) {
    log_->log(kLogWarning, "-[QuorvelRequestCache sendNextCachedEvents]",
              "%@ is not sent: it cannot be claimed (%@); it waits for a start that can", name,
              reason);
    std::lock_guard guard(lock_);
    unclaimable_.insert(plainName(name));
    return false;
  }
  request.setCacheKey(claimed);
  std::lock_guard guard(lock_);
  claimed_.insert(claimed);
  return true;
}

void QuorvelRequestCache::releaseRequest(const QuorvelRequestCacheData& request,
                                         bool mayHaveReached) {
  const auto directory = getCacheDirectoryPath();
  const std::string name = request.cacheKey().value_or(std::string());
  if (!directory || claimerOf(name) == 0)
    return;
  if (mayHaveReached || request.mayHaveReached())
    markReached(*directory + "/" + name);
  std::string reason;
  if (!platform_->fileSystem->moveFile(*directory + "/" + name, *directory + "/" + plainName(name),
                                       &reason)) {
    // Kept as this process's claim: the next start takes it again.
    log_->log(kLogError, "-[QuorvelRequestCache releaseRequest:]", "Error renaming file at %@\n%@",
              *directory + "/" + name, reason);
    return;
  }
  std::lock_guard guard(lock_);
  claimed_.erase(name);
}

// Said in the file itself, so that a later process counts its replay as a repeat too. A file
// that cannot be rewritten only loses that count.
void QuorvelRequestCache::markReached(const std::string& path) {
  auto& fs = *platform_->fileSystem;
  auto bytes = fs.readFile(path);
  if (!bytes)
    return;
  const std::string text(bytes->begin(), bytes->end());
  if (text.find(kReachedLine) != std::string::npos)
    return;
  bytes->insert(bytes->end(), kReachedLine.begin(), kReachedLine.end());
  fs.writeFileAtomically(path, *bytes);
}

void QuorvelRequestCache::abandonReplay(const QuorvelRequestCacheData& request, bool answered,
                                        bool mayHaveReached) {
  if (answered)
    deleteRequest(request);
  else
    releaseRequest(request, mayHaveReached);
  std::lock_guard guard(lock_);
  if (cachedRequests_)
    cachedRequests_->clear();
  isSendingCachedData_ = false;
}

bool QuorvelRequestCache::mayClaim(const std::string& name) const {
  std::lock_guard guard(lock_);
  if (unclaimable_.count(plainName(name)) > 0 || claimed_.count(name) > 0)
    return false;
  const pid_t claimer = claimerOf(name);
  // Another process's claim while it runs is its own; one of this process's number that this
  // process did not make was left by an earlier process that had the same number.
  return claimer == 0 || claimer == ::getpid() || !processRuns(claimer);
}

std::optional<std::vector<QuorvelRequestCacheData>> QuorvelRequestCache::cachedRequests() const {
  std::lock_guard guard(lock_);
  return cachedRequests_;
}

}  // namespace quorvel
