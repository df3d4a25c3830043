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

namespace quorvel::platform {

class OutboxIntake {
 public:
  // Where a change's content lies in the file.
  struct Place {
    std::uint64_t offset = 0;
    std::uint32_t length = 0;
  };

  // Creates `path` empty (replacing a file of that name unless `exclusive`).
  static std::shared_ptr<OutboxIntake> create(const std::string& path, bool exclusive,
                                              std::string& reason);
  // The whole batches a file holds, in the order they were written; none when it is missing.
  static std::vector<OutboxChange> read(const std::string& path);

  ~OutboxIntake();
  OutboxIntake(const OutboxIntake&) = delete;
  OutboxIntake& operator=(const OutboxIntake&) = delete;

  // Appends the batch as one frame; `places` gets each change's content place (in order).
  // All or nothing: a write that fails halfway is cut off again.
  bool append(const std::vector<OutboxChange>& changes, std::vector<Place>& places) noexcept;
  // A content written earlier; false when it cannot be read back.
  bool readAt(Place place, std::string& content) const noexcept;

 private:
  explicit OutboxIntake(int fd) : fd_(fd) {}
  int fd_ = -1;
  std::uint64_t size_ = 0;
};

}  // namespace quorvel::platform
