#include <quorvel/testing/MemoryServices.h>

#include <algorithm>

namespace quorvel::testkit {

// --- MemoryPreferencesStore -------------------------------------------------------------------

std::optional<Json> MemoryPreferencesStore::objectForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  const auto it = values_.find(key);
  if (it == values_.end())
    return std::nullopt;
  return it->second;
}

void MemoryPreferencesStore::setObject(std::string_view key, Json value) {
  std::lock_guard lock(mutex_);
  if (value.is_null()) {
    if (const auto it = values_.find(key); it != values_.end())
      values_.erase(it);
    return;
  }
  values_[std::string(key)] = std::move(value);
}

void MemoryPreferencesStore::removeObjectForKey(std::string_view key) {
  std::lock_guard lock(mutex_);
  if (const auto it = values_.find(key); it != values_.end())
    values_.erase(it);
}

bool MemoryPreferencesStore::removeAllObjects() {
  std::lock_guard lock(mutex_);
  values_.clear();
  return true;
}

bool MemoryPreferencesStore::synchronize() {
  std::lock_guard lock(mutex_);
  ++synchronizeCount_;
  if (failWrites_)
    return false;
  durable_ = {values_.begin(), values_.end()};
  return true;
}

void MemoryPreferencesStore::setFailWrites(bool fail) {
  std::lock_guard lock(mutex_);
  failWrites_ = fail;
}

std::map<std::string, Json> MemoryPreferencesStore::durable() const {
  std::lock_guard lock(mutex_);
  return durable_;
}

int MemoryPreferencesStore::synchronizeCount() const {
  std::lock_guard lock(mutex_);
  return synchronizeCount_;
}

// --- MemoryOutboxStore -----------------------------------------------------------------------

bool MemoryOutboxStore::open(std::string& reason) noexcept {
  std::lock_guard lock(mutex_);
  if (heldElsewhere_)
    reason = "another process uses the data directory";
  else if (failOpen_)
    reason = "disk full";
  return !heldElsewhere_ && !failOpen_;
}

void MemoryOutboxStore::setFailOpen(bool fail) {
  std::lock_guard lock(mutex_);
  failOpen_ = fail;
}

bool MemoryOutboxStore::heldByAnotherProcess() const noexcept {
  std::lock_guard lock(mutex_);
  return heldElsewhere_;
}

bool MemoryOutboxStore::apply(const std::vector<platform::OutboxChange>& changes) noexcept {
  std::lock_guard lock(mutex_);
  if (failWrites_)
    return false;
  try {
    auto next = records_;  // all or nothing
    for (const auto& change : changes) {
      if (change.content)
        next[change.id] = *change.content;
      else
        next.erase(change.id);
    }
    records_.swap(next);
    return true;
  } catch (...) {
    return false;
  }
}

std::vector<platform::OutboxRecord> MemoryOutboxStore::load(std::int64_t afterId,
                                                            std::size_t limit) noexcept {
  std::lock_guard lock(mutex_);
  std::vector<platform::OutboxRecord> out;
  try {
    for (auto it = records_.upper_bound(afterId); it != records_.end() && out.size() < limit; ++it)
      out.push_back({it->first, it->second});
  } catch (...) {
  }
  return out;
}

std::int64_t MemoryOutboxStore::highestId() noexcept {
  std::lock_guard lock(mutex_);
  return records_.empty() ? -1 : records_.rbegin()->first;
}

bool MemoryOutboxStore::sync() noexcept {
  std::lock_guard lock(mutex_);
  ++syncCount_;
  return !failWrites_;
}

bool MemoryOutboxStore::destroy() noexcept {
  std::lock_guard lock(mutex_);
  if (failWrites_)
    return false;
  records_.clear();
  countersUnkept_ = false;
  launchUnsent_ = false;
  unkeptStarts_ = 0;
  return true;
}

bool MemoryOutboxStore::markCountersUnkept(bool unkept) noexcept {
  std::lock_guard lock(mutex_);
  countersUnkept_ = unkept;
  launchUnsent_ = launchUnsent_ && unkept;
  unkeptStarts_ = unkept ? std::max(unkeptStarts_, 1) : 0;
  return true;
}

int MemoryOutboxStore::unkeptStarts() const noexcept {
  std::lock_guard lock(mutex_);
  return unkeptStarts_;
}

bool MemoryOutboxStore::markUnkeptStarts(int starts) noexcept {
  std::lock_guard lock(mutex_);
  countersUnkept_ = countersUnkept_ || starts >= 1;
  unkeptStarts_ = std::max(unkeptStarts_, starts);
  return true;
}

bool MemoryOutboxStore::markLaunchUnsent(bool unsent) noexcept {
  std::lock_guard lock(mutex_);
  launchUnsent_ = unsent;
  return true;
}

bool MemoryOutboxStore::launchUnsent() const noexcept {
  std::lock_guard lock(mutex_);
  return launchUnsent_;
}

bool MemoryOutboxStore::countersUnkept() const noexcept {
  std::lock_guard lock(mutex_);
  return countersUnkept_;
}

std::size_t MemoryOutboxStore::size() const {
  std::lock_guard lock(mutex_);
  return records_.size();
}

int MemoryOutboxStore::syncCount() const {
  std::lock_guard lock(mutex_);
  return syncCount_;
}

void MemoryOutboxStore::setFailWrites(bool fail) {
  std::lock_guard lock(mutex_);
  failWrites_ = fail;
}

void MemoryOutboxStore::setHeldElsewhere(bool held) {
  std::lock_guard lock(mutex_);
  heldElsewhere_ = held;
}

// --- MemorySecureStore ------------------------------------------------------------------------

platform::SecureStatus MemorySecureStore::add(std::string_view service, std::string_view account,
                                              const Bytes& data) {
  std::lock_guard lock(mutex_);
  const auto [it, inserted] =
      items_.emplace(std::make_pair(std::string(service), std::string(account)), data);
  return inserted ? platform::SecureStatus::success : platform::SecureStatus::duplicateItem;
}

platform::SecureStatus MemorySecureStore::copy(std::string_view service, std::string_view account,
                                               Bytes& out) const {
  std::lock_guard lock(mutex_);
  const auto it = items_.find({std::string(service), std::string(account)});
  if (it == items_.end())
    return platform::SecureStatus::itemNotFound;
  out = it->second;
  return platform::SecureStatus::success;
}

platform::SecureStatus MemorySecureStore::update(std::string_view service, std::string_view account,
                                                 const Bytes& data) {
  std::lock_guard lock(mutex_);
  const auto it = items_.find({std::string(service), std::string(account)});
  if (it == items_.end())
    return platform::SecureStatus::itemNotFound;
  it->second = data;
  return platform::SecureStatus::success;
}

platform::SecureStatus MemorySecureStore::remove(std::string_view service,
                                                 std::string_view account) {
  std::lock_guard lock(mutex_);
  return items_.erase({std::string(service), std::string(account)}) > 0
             ? platform::SecureStatus::success
             : platform::SecureStatus::itemNotFound;
}

std::size_t MemorySecureStore::size() const {
  std::lock_guard lock(mutex_);
  return items_.size();
}

// --- MemoryFileSystem -------------------------------------------------------------------------

std::optional<platform::TimePoint> MemoryFileSystem::creationDate(const std::string& path) const {
  std::lock_guard lock(mutex_);
  const auto it = nodes_.find(path);
  return it == nodes_.end() ? std::nullopt : it->second.created;
}

std::optional<platform::TimePoint> MemoryFileSystem::modificationDate(
    const std::string& path) const {
  std::lock_guard lock(mutex_);
  const auto it = nodes_.find(path);
  return it == nodes_.end() ? std::nullopt : it->second.modified;
}

bool MemoryFileSystem::fileExists(const std::string& path) const {
  std::lock_guard lock(mutex_);
  return nodes_.count(path) > 0;
}

const char* MemoryFileSystem::refusal(bool isWrite) const {
  if (readOnly_)
    return "Read-only file system";
  return isWrite && failWrites_ ? "No space left on device" : "";
}

bool MemoryFileSystem::createDirectory(const std::string& path) {
  std::lock_guard lock(mutex_);
  if (*refusal(true) != '\0')
    return false;
  nodes_[path].directory = true;
  return true;
}

std::optional<std::vector<std::string>> MemoryFileSystem::contentsOfDirectory(
    const std::string& path) const {
  std::lock_guard lock(mutex_);
  const auto dir = nodes_.find(path);
  if (dir == nodes_.end() || !dir->second.directory)
    return std::nullopt;
  std::vector<std::string> names;
  const std::string prefix = path + "/";
  for (const auto& [p, node] : nodes_) {
    if (p.rfind(prefix, 0) == 0 && p.find('/', prefix.size()) == std::string::npos) {
      names.push_back(p.substr(prefix.size()));
    }
  }
  return names;
}

std::optional<Bytes> MemoryFileSystem::readFile(const std::string& path) const {
  std::lock_guard lock(mutex_);
  const auto it = nodes_.find(path);
  if (it == nodes_.end() || it->second.directory)
    return std::nullopt;
  return it->second.content;
}

bool MemoryFileSystem::writeFileAtomically(const std::string& path, const Bytes& content,
                                           std::string* errorReason) {
  std::lock_guard lock(mutex_);
  if (const char* why = refusal(true); *why != '\0') {
    if (errorReason != nullptr)
      *errorReason = why;
    return false;
  }
  nodes_[path].content = content;
  return true;
}

bool MemoryFileSystem::removeFile(const std::string& path, std::string* errorReason) {
  std::lock_guard lock(mutex_);
  const char* why = nodes_.count(path) == 0 ? "No such file or directory" : refusal(false);
  if (*why == '\0') {
    nodes_.erase(path);
    return true;
  }
  if (errorReason != nullptr)
    *errorReason = why;
  return false;
}

bool MemoryFileSystem::moveFile(const std::string& from, const std::string& to,
                                std::string* errorReason) {
  std::lock_guard lock(mutex_);
  const auto it = nodes_.find(from);
  const char* why = it == nodes_.end() ? "No such file or directory" : refusal(false);
  if (*why != '\0') {
    if (errorReason != nullptr)
      *errorReason = why;
    return false;
  }
  auto node = std::move(it->second);
  nodes_.erase(it);
  nodes_[to] = std::move(node);
  return true;
}

void MemoryFileSystem::setDates(const std::string& path, std::optional<platform::TimePoint> created,
                                std::optional<platform::TimePoint> modified) {
  std::lock_guard lock(mutex_);
  const bool existed = nodes_.count(path) > 0;
  auto& node = nodes_[path];
  if (!existed)
    node.directory = true;
  node.created = created;
  node.modified = modified;
}

void MemoryFileSystem::setFailWrites(bool fail) {
  std::lock_guard lock(mutex_);
  failWrites_ = fail;
}

void MemoryFileSystem::setReadOnly(bool readOnly) {
  std::lock_guard lock(mutex_);
  readOnly_ = readOnly;
}

// --- CapturingSystemLog -----------------------------------------------------------------------

void CapturingSystemLog::write(std::string_view line) noexcept {
  std::lock_guard lock(mutex_);
  lines_.emplace_back(line);
}

std::vector<std::string> CapturingSystemLog::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::size_t CapturingSystemLog::count(std::string_view text) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(lines_.begin(), lines_.end(),
                    [&](const std::string& l) { return l.find(text) != std::string::npos; }));
}

void CapturingSystemLog::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

}  // namespace quorvel::testkit
