// Preferences kept in one JSON file, replaced atomically on synchronize().
//
// Two processes of one app may share the file (an app and its helper, a restart while the last
// process still exits). synchronize() therefore writes this process's changes over what the
// file holds now, under a lock on the file's folder, rather than its whole view over the
// other's keys.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <quorvel/platform/PreferencesStore.h>
#include <quorvel/platform/SystemLog.h>

namespace quorvel::platform {

class JsonFilePreferencesStore final : public PreferencesStore {
 public:
  // The file is read on first use; a missing file is an empty store, a corrupt one is
  // logged, kept aside as "<path>.corrupt" and replaced at the next synchronize(); one that
  // exists but cannot be read is logged and never written (the values live in memory).
  // Failures are written to `log` (standard error when none is given), whatever the debug
  // switch says: a store that cannot keep its values is worth a line.
  explicit JsonFilePreferencesStore(std::string path, std::shared_ptr<SystemLog> log = nullptr);
  ~JsonFilePreferencesStore() override;

  std::optional<Json> objectForKey(std::string_view key) const override;
  void setObject(std::string_view key, Json value) override;
  void removeObjectForKey(std::string_view key) override;
  // Also removes the temp files of interrupted writes and a corrupt file set aside.
  bool removeAllObjects() override;
  bool synchronize() override;
  // Forgets this process's copy and its unsaved changes, writing nothing: the file is read
  // again at the next use (another process replaced the install it held).
  void discardCopy();
  // For a value every process of the app must share (the install's identifier): the one
  // another process stored on the file since this one read it wins; `value` is stored, and
  // written at once, only where the file has none. The value in effect.
  Json setObjectUnlessStored(std::string_view key, Json value);

  const std::string& path() const noexcept { return path_; }

 private:
  void loadLocked() const;
  // The file's values now, or nullopt when there is none that can be read.
  std::optional<Json> readCurrentFile() const;
  std::string folder() const;
  // synchronize()'s write, under its two locks.
  bool writeMergedLocked();
  // Temp files of interrupted writes (all of them, or those no one can still be writing).
  void removeLeftoverFiles(bool all) const;

  std::string path_;
  std::shared_ptr<SystemLog> log_;
  std::mutex writeMutex_;
  mutable std::mutex mutex_;
  mutable bool loaded_ = false;
  mutable bool unreadable_ = false;  // exists but cannot be read: never written over
  mutable Json values_ = Json::object();
  bool dirty_ = false;
  // The keys this process changed since its last write: a value, or nullopt for a removal.
  std::map<std::string, std::optional<Json>, std::less<>> changes_;
  bool cleared_ = false;  // removeAllObjects(): the file's other keys go too
};

}  // namespace quorvel::platform
