// Platform services in memory for a host's tests: preferences, the secure store, the app's
// files and the system log. Nothing touches the disk, so a test needs no directory of its own
// and leaves nothing behind; each also lets the test see or break what the library relies on.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <quorvel/platform/FileSystem.h>
#include <quorvel/platform/OutboxStore.h>
#include <quorvel/platform/PreferencesStore.h>
#include <quorvel/platform/SecureStore.h>
#include <quorvel/platform/SystemLog.h>

namespace quorvel::testkit {

class MemoryPreferencesStore final : public platform::PreferencesStore {
 public:
  std::optional<Json> objectForKey(std::string_view key) const override;
  void setObject(std::string_view key, Json value) override;
  void removeObjectForKey(std::string_view key) override;
  bool removeAllObjects() override;
  bool synchronize() override;

  int synchronizeCount() const;
  // The values as of the last synchronize: what a crash would leave.
  std::map<std::string, Json> durable() const;
  // While set, synchronize fails as on a full disk.
  void setFailWrites(bool fail);

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Json, std::less<>> values_;
  std::map<std::string, Json> durable_;
  int synchronizeCount_ = 0;
  bool failWrites_ = false;
};

class MemorySecureStore final : public platform::SecureStore {
 public:
  platform::SecureStatus add(std::string_view service, std::string_view account,
                             const Bytes& data) override;
  platform::SecureStatus copy(std::string_view service, std::string_view account,
                              Bytes& out) const override;
  platform::SecureStatus update(std::string_view service, std::string_view account,
                                const Bytes& data) override;
  platform::SecureStatus remove(std::string_view service, std::string_view account) override;
  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, Bytes> items_;
};

// The app's directories under "/app" in memory. Dates are whatever the test sets (none
// until then); a file may be written without creating its directory first.
class MemoryFileSystem final : public platform::FileSystem {
 public:
  std::string libraryDirectory() const override { return "/app/Library"; }
  std::string cachesDirectory() const override { return "/app/Library/Caches"; }
  std::string temporaryDirectory() const override { return "/app/tmp"; }
  std::optional<platform::TimePoint> creationDate(const std::string& path) const override;
  std::optional<platform::TimePoint> modificationDate(const std::string& path) const override;
  bool fileExists(const std::string& path) const override;
  bool createDirectory(const std::string& path) override;
  std::optional<std::vector<std::string>> contentsOfDirectory(
      const std::string& path) const override;
  std::optional<Bytes> readFile(const std::string& path) const override;
  bool writeFileAtomically(const std::string& path, const Bytes& content,
                           std::string* errorReason) override;
  bool removeFile(const std::string& path, std::string* errorReason) override;
  bool moveFile(const std::string& from, const std::string& to, std::string* errorReason) override;
  using FileSystem::removeFile;
  using FileSystem::writeFileAtomically;

  // Sets the dates of `path`, making it a directory when it does not exist yet.
  void setDates(const std::string& path, std::optional<platform::TimePoint> created,
                std::optional<platform::TimePoint> modified);
  // While set, writes and new directories fail as on a full disk.
  void setFailWrites(bool fail);
  // While set, every change fails as on a read-only file system: writes, new directories,
  // renames and removals. Reading goes on.
  void setReadOnly(bool readOnly);

 private:
  struct Node {
    bool directory = false;
    Bytes content;
    std::optional<platform::TimePoint> created;
    std::optional<platform::TimePoint> modified;
  };
  mutable std::mutex mutex_;
  std::map<std::string, Node> nodes_;
  bool failWrites_ = false;
  bool readOnly_ = false;
  // Why a change fails now (empty: it does not); `mutex_` held.
  const char* refusal(bool isWrite) const;
};

// The outbox in memory. It outlives the trackers made on it, so that a test models a kill by
// dropping a tracker without a flush and making the next one on the same store.
class MemoryOutboxStore final : public platform::OutboxStore, public platform::OutboxUnkeptStarts {
 public:
  bool open(std::string& reason) noexcept override;
  bool heldByAnotherProcess() const noexcept override;
  bool apply(const std::vector<platform::OutboxChange>& changes) noexcept override;
  std::vector<platform::OutboxRecord> load(std::int64_t afterId,
                                           std::size_t limit) noexcept override;
  std::int64_t highestId() noexcept override;
  bool sync() noexcept override;
  bool destroy() noexcept override;
  // Kept whether writes fail or not, as an empty file's name on a full disk.
  bool markCountersUnkept(bool unkept) noexcept override;
  bool countersUnkept() const noexcept override;
  bool markLaunchUnsent(bool unsent) noexcept override;
  bool launchUnsent() const noexcept override;
  int unkeptStarts() const noexcept override;
  bool markUnkeptStarts(int starts) noexcept override;

  std::size_t size() const;
  int syncCount() const;
  // While set, batches fail as on a full disk.
  void setFailWrites(bool fail);
  // While set, open() fails as when another process holds the store.
  void setHeldElsewhere(bool held);
  // While set, open() fails as on a full disk, where a new store cannot be made.
  void setFailOpen(bool fail);

 private:
  mutable std::mutex mutex_;
  std::map<std::int64_t, std::string> records_;
  int syncCount_ = 0;
  bool failWrites_ = false;
  bool heldElsewhere_ = false;
  bool countersUnkept_ = false;
  bool launchUnsent_ = false;
  int unkeptStarts_ = 0;
  bool failOpen_ = false;
};

// Keeps every line the library logs (with its debug switch on).
class CapturingSystemLog final : public platform::SystemLog {
 public:
  void write(std::string_view line) noexcept override;
  std::vector<std::string> lines() const;
  // How many lines contain `text`.
  std::size_t count(std::string_view text) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace quorvel::testkit
