#include "platform/posix/JsonFilePreferencesStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>
#include <utility>

#include <quorvel/Format.h>

#include "platform/AtomicFile.h"
#include "platform/ParentOnlyDescriptor.h"
#include "platform/posix/PosixServices.h"
#include "util/Base64.h"
#include "util/BoundedJson.h"

namespace quorvel::platform {
namespace {

constexpr const char* kDataTag = "$data";
constexpr const char* kSynchronizeMethod = "-[QuorvelPreferences synchronize]";

// Bytes are written as {"$data": base64}; dates are already {"$date": seconds}.
Json toFile(const Json& v) {
  if (v.is_binary())
    return Json{{kDataTag, base64Encode(v.get_binary())}};
  if (v.is_object()) {
    Json out = Json::object();
    for (const auto& [k, e] : v.items())
      out[k] = toFile(e);
    return out;
  }
  if (v.is_array()) {
    Json out = Json::array();
    for (const auto& e : v)
      out.push_back(toFile(e));
    return out;
  }
  return v;
}

Json fromFile(const Json& v) {
  if (v.is_object() && v.size() == 1 && v.contains(kDataTag) && v[kDataTag].is_string()) {
    return Json::binary(base64DecodeLenient(v[kDataTag].get<std::string>()));
  }
  if (v.is_object()) {
    Json out = Json::object();
    for (const auto& [k, e] : v.items())
      out[k] = fromFile(e);
    return out;
  }
  if (v.is_array()) {
    Json out = Json::array();
    for (const auto& e : v)
      out.push_back(fromFile(e));
    return out;
  }
  return v;
}

// Far above what the preferences hold (identifiers, counters, a few answers of the service):
// a file past it is read as one that cannot be read, and left as it is.
constexpr std::size_t kMaxPreferencesBytes = std::size_t{256} * 1024 * 1024;

// The file's content, or the errno that stopped reading it (EINVAL: not a regular file).
int readWholeFile(const std::string& path, std::string& out) {
  auto text = readTextFile(path, kMaxPreferencesBytes);
  if (!text)
    return errno != 0 ? errno : EIO;
  out = std::move(*text);
  return 0;
}

// The lock two processes take around reading and replacing the file: on its folder, as the
// file itself is replaced by every write, and a lock file of its own would outlive the
// forgetting of the install. It is held for the time of one small read and write; a holder
// that never lets go (a stopped process) is waited for a second, then the write goes on.
class FolderLock {
 public:
  explicit FolderLock(const std::string& folder)
      : fd_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    constexpr int kTries = 100;
    for (int i = 0; fd_.get() >= 0 && i < kTries; ++i) {
      if (::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0)
        return;
      if (errno != EWOULDBLOCK && errno != EINTR)
        break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    fd_.reset();
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  // Closing lets the lock go; a child forked meanwhile does not keep it.
  ParentOnlyDescriptor fd_;
};

}  // namespace

JsonFilePreferencesStore::JsonFilePreferencesStore(std::string path, std::shared_ptr<SystemLog> log)
    : path_(std::move(path)), log_(log ? std::move(log) : std::make_shared<StderrSystemLog>()) {}

JsonFilePreferencesStore::~JsonFilePreferencesStore() {
  // Unsaved changes of an object that goes away are written out; the process-wide store
  // is never destroyed and relies on synchronize().
  try {
    synchronize();
  } catch (...) {
  }
}

void JsonFilePreferencesStore::removeLeftoverFiles(bool all) const {
  // A write cut short by a kill leaves its temp file, with whatever that write held. One
  // a minute old is no longer being written by anyone.
  const std::filesystem::path file(path_);
  const std::string temp = file.filename().string() + ".tmp-";
  const std::string aside = file.filename().string() + ".corrupt";
  const auto recent = std::filesystem::file_time_type::clock::now() - std::chrono::minutes(1);
  std::error_code ec;
  for (std::filesystem::directory_iterator it(file.parent_path(), ec), end; !ec && it != end;
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    std::error_code timeError;
    const bool stray = name.rfind(temp, 0) == 0 &&
                       (all || std::filesystem::last_write_time(it->path(), timeError) < recent);
    if (stray || (all && name == aside)) {
      std::error_code removeError;
      std::filesystem::remove(it->path(), removeError);
    }
  }
}

void JsonFilePreferencesStore::loadLocked() const {
  if (loaded_)
    return;
  loaded_ = true;
  removeLeftoverFiles(false);
  std::string text;
  const int error = readWholeFile(path_, text);
  if (error == ENOENT || error == ENOTDIR)
    return;  // no file: a first run
  // A FIFO or a device holds no preferences of ours: set aside below as a damaged file is, so
  // that the next write makes a sound one.
  const bool foreign = error == EINVAL;
  if (error != 0 && !foreign) {
    // Taking it for empty would replace counters, identifier and attribution at the next
    // synchronize: this process runs from memory and leaves the file alone.
    unreadable_ = true;
    log_->write(
        format("[ERROR] Quorvel: -[QuorvelPreferences load] preferences file %@ cannot be "
               "read (%@); running from memory, the file is left as it is",
               path_, std::string(std::strerror(error))));
    return;
  }
  // The file nests its values two levels deeper than they are (the object of all keys, the
  // envelope of binary data): a value at the depth bound must read back, or one deep answer
  // stored today would make the whole file unreadable at the next start.
  Json parsed =
      foreign ? Json(Json::value_t::discarded) : parseBoundedJson(text, kMaxJsonDepth + 2);
  if (parsed.is_discarded() || !parsed.is_object()) {
    const std::string aside = path_ + ".corrupt";
    std::rename(path_.c_str(), aside.c_str());
    log_->write(
        format("[ERROR] Quorvel: -[QuorvelPreferences load] preferences file %@ is "
               "corrupt; kept as %@ and starting empty",
               path_, aside));
    return;
  }
  values_ = fromFile(parsed);
}

std::optional<Json> JsonFilePreferencesStore::objectForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  loadLocked();
  const auto it = values_.find(std::string(key));
  if (it == values_.end())
    return std::nullopt;
  return *it;
}

void JsonFilePreferencesStore::setObject(std::string_view key, Json value) {
  if (value.is_null()) {
    removeObjectForKey(key);
    return;
  }
  std::lock_guard lock(mutex_);
  loadLocked();
  auto& slot = values_[std::string(key)];
  if (slot != value) {  // an unchanged value leaves nothing to write
    slot = value;
    changes_.insert_or_assign(std::string(key), std::move(value));
    dirty_ = true;
  }
}

void JsonFilePreferencesStore::removeObjectForKey(std::string_view key) {
  std::lock_guard lock(mutex_);
  loadLocked();
  if (values_.erase(std::string(key)) > 0) {
    changes_.insert_or_assign(std::string(key), std::nullopt);
    dirty_ = true;
  }
}

bool JsonFilePreferencesStore::removeAllObjects() {
  {
    std::lock_guard lock(mutex_);
    loadLocked();
    values_ = Json::object();
    changes_.clear();
    cleared_ = true;
    dirty_ = true;
  }
  std::lock_guard writer(writeMutex_);
  removeLeftoverFiles(true);
  return true;
}

void JsonFilePreferencesStore::discardCopy() {
  std::lock_guard writer(writeMutex_);
  std::lock_guard lock(mutex_);
  loaded_ = false;
  unreadable_ = false;
  values_ = Json::object();
  changes_.clear();
  cleared_ = false;
  dirty_ = false;
}

std::optional<Json> JsonFilePreferencesStore::readCurrentFile() const {
  std::string text;
  if (readWholeFile(path_, text) != 0)
    return std::nullopt;
  Json parsed = parseBoundedJson(text, kMaxJsonDepth + 2);
  if (parsed.is_discarded() || !parsed.is_object())
    return std::nullopt;
  return fromFile(parsed);
}

std::string JsonFilePreferencesStore::folder() const {
  const auto slash = path_.find_last_of('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path_.substr(0, slash);
}

Json JsonFilePreferencesStore::setObjectUnlessStored(std::string_view key, Json value) {
  std::lock_guard writer(writeMutex_);
  bool fromMemory = false;
  {
    std::lock_guard lock(mutex_);
    loadLocked();
    // Unreadable, the file is never written; removed here and not yet saved (a forgetting),
    // what the file still holds is the old install's.
    fromMemory = unreadable_ || cleared_ || changes_.contains(std::string(key));
  }
  if (fromMemory) {
    setObject(key, value);
    return value;
  }
  makeDirectories(folder(), 0700);
  const FolderLock across(folder());
  if (const auto current = readCurrentFile()) {
    if (const auto it = current->find(std::string(key)); it != current->end() && !it->is_null()) {
      std::lock_guard lock(mutex_);
      values_[std::string(key)] = *it;
      return *it;
    }
  }
  setObject(key, value);
  writeMergedLocked();  // refused: kept in memory, written at the next synchronize()
  return value;
}

bool JsonFilePreferencesStore::synchronize() {
  // One writer at a time, so that an older snapshot never overwrites a newer one.
  std::lock_guard writer(writeMutex_);
  {
    std::lock_guard lock(mutex_);
    if (unreadable_)
      return false;
    if (!dirty_)
      return true;
  }
  makeDirectories(folder(), 0700);
  const FolderLock across(folder());
  return writeMergedLocked();
}

bool JsonFilePreferencesStore::writeMergedLocked() {
  std::optional<Json> current = readCurrentFile();
  std::string text;
  decltype(changes_) written;
  bool cleared = false;
  {
    std::lock_guard lock(mutex_);
    if (current && !cleared_) {
      // What another process wrote since this one read the file stays, but for the keys this
      // one changed; this process sees the other's values from now on.
      for (auto& [key, value] : changes_) {
        if (value)
          (*current)[key] = *value;
        else
          current->erase(key);
      }
      values_ = std::move(*current);
    }
    text = toFile(values_).dump(1, '\t', false, Json::error_handler_t::replace);
    written.swap(changes_);
    cleared = std::exchange(cleared_, false);
    dirty_ = false;
  }
  std::string error;
  const Bytes content(text.begin(), text.end());
  if (writeFileAtomically(path_, content, {}, &error) != AtomicWriteResult::written) {
    std::lock_guard lock(mutex_);
    // Tried again at the next synchronize; changes made meanwhile are newer.
    changes_.merge(written);
    cleared_ = cleared_ || cleared;
    dirty_ = true;
    log_->write(
        format("[ERROR] Quorvel: %s could not save preferences: %@", kSynchronizeMethod, error));
    return false;
  }
  return true;
}

}  // namespace quorvel::platform
