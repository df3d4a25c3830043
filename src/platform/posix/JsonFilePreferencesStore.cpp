#include "platform/posix/JsonFilePreferencesStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <quorvel/Format.h>

#include "platform/AtomicFile.h"
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

// The file's content, or the errno that stopped reading it.
int readWholeFile(const std::string& path, std::string& out) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return errno;
  char chunk[8192];
  int error = 0;
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n > 0) {
      out.append(chunk, static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      error = errno;
      break;
    }
  }
  ::close(fd);
  return error;
}

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
  if (const int error = readWholeFile(path_, text); error == ENOENT || error == ENOTDIR) {
    return;  // no file: a first run
  } else if (error != 0) {
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
  Json parsed = parseBoundedJson(text, kMaxJsonDepth + 2);
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
    slot = std::move(value);
    dirty_ = true;
  }
}

void JsonFilePreferencesStore::removeObjectForKey(std::string_view key) {
  std::lock_guard lock(mutex_);
  loadLocked();
  if (values_.erase(std::string(key)) > 0)
    dirty_ = true;
}

bool JsonFilePreferencesStore::removeAllObjects() {
  {
    std::lock_guard lock(mutex_);
    loadLocked();
    values_ = Json::object();
    dirty_ = true;
  }
  std::lock_guard writer(writeMutex_);
  removeLeftoverFiles(true);
  return true;
}

bool JsonFilePreferencesStore::synchronize() {
  // One writer at a time, so that an older snapshot never overwrites a newer one.
  std::lock_guard writer(writeMutex_);
  std::string text;
  {
    std::lock_guard lock(mutex_);
    if (unreadable_)
      return false;
    if (!dirty_)
      return true;
    text = toFile(values_).dump(1, '\t', false, Json::error_handler_t::replace);
    dirty_ = false;
  }
  const auto slash = path_.find_last_of('/');
  if (slash != std::string::npos && slash > 0)
    makeDirectories(path_.substr(0, slash), 0700);
  std::string error;
  const Bytes content(text.begin(), text.end());
  if (writeFileAtomically(path_, content, {}, &error) != AtomicWriteResult::written) {
    std::lock_guard lock(mutex_);
    dirty_ = true;  // try again at the next synchronize
    log_->write(
        format("[ERROR] Quorvel: %s could not save preferences: %@", kSynchronizeMethod, error));
    return false;
  }
  return true;
}

}  // namespace quorvel::platform
