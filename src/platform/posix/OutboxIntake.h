// The outbox's intake: an append-only file in front of its database. A batch of changes is
// one framed write() (length, checksum, then the changes), so that it reaches the kernel, and
// survives the death of the process, in one system call however busy the database is. A
// frame cut short or garbled (a power cut in the middle of a write) ends the file for a
// reader: the batches before it are whole, that one and any after it count as never written.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <quorvel/platform/OutboxStore.h>

#include "platform/ParentOnlyDescriptor.h"

namespace quorvel::platform {

class OutboxIntake {
 public:
  // Where a change's content lies in the file.
  struct Place {
    std::uint64_t offset = 0;
    std::uint32_t length = 0;
  };

  // A change a file holds: its content is read back through readAt() when it is needed.
  struct Entry {
    std::int64_t id = 0;
    Place place;
    bool removed = false;
  };

  // Creates `path`, which must not exist yet.
  static std::shared_ptr<OutboxIntake> create(const std::string& path, std::string& reason);
  // Opens a file an earlier process wrote; `entries` gets the changes of its whole batches, in
  // the order they were written. Null when it cannot be opened.
  static std::shared_ptr<OutboxIntake> adopt(const std::string& path, std::vector<Entry>& entries);

  ~OutboxIntake();
  OutboxIntake(const OutboxIntake&) = delete;
  OutboxIntake& operator=(const OutboxIntake&) = delete;

  // Appends the batch as one frame; `places` gets each change's content place (in order).
  // All or nothing: a write that fails halfway is cut off again.
  bool append(const std::vector<OutboxChange>& changes, std::vector<Place>& places) noexcept;
  // A content written earlier; false when it cannot be read back.
  bool readAt(Place place, std::string& content) const noexcept;
  // For a file two processes share: an exclusive advisory lock around a write or a taking.
  bool lock() noexcept;
  // The same lock without waiting: false while another holder has it.
  bool tryLock() noexcept;
  void unlock() noexcept;
  // True once the file was removed (another process took what it held).
  bool removed() const noexcept;
  // True while this file is the one at `path` (not removed, nor another put in its place).
  bool isAt(const std::string& path) const noexcept;

 private:
  explicit OutboxIntake(int fd) : fd_(fd) {}
  ParentOnlyDescriptor fd_;  // a forked child does not keep it
  std::uint64_t size_ = 0;
  bool tailDirty_ = false;  // a failed write left bytes after size_
};

}  // namespace quorvel::platform
