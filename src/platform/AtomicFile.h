// Durable, all-or-nothing file replacement: temp file, fsync, rename, fsync of the directory;
// and the reading and directory making that goes with it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include <quorvel/Json.h>

namespace quorvel::platform {

struct AtomicWriteOptions {
  unsigned mode = 0600;
  // When false the final name must not exist yet (an exclusive create).
  bool replaceExisting = true;
  // Called after the temp file is durable and before it takes the final name. Tests use it
  // to die at the worst moment.
  std::function<void()> beforeRename;
};

enum class AtomicWriteResult { written, alreadyExists, failed };

// Writes `content` to `path` so that after a crash the file holds its old content (or does
// not exist) or the new content in full. Sets `errorText` on failure.
AtomicWriteResult writeFileAtomically(const std::string& path, const Bytes& content,
                                      const AtomicWriteOptions& options, std::string* errorText);

// Makes the directory's entries (names created, renamed or removed) durable.
void syncDirectory(const std::string& dir);

// Writes all `size` bytes (with pwrite() at `offset` when it is not negative), again after a
// signal; false at the first failure.
bool writeAll(int fd, const void* data, std::size_t size, off_t offset = -1) noexcept;
// Reads all `size` bytes at `offset`, again after a signal; false at a failure or the file's end.
bool readAllAt(int fd, void* into, std::size_t size, off_t offset) noexcept;

// Larger than any kept request, receipt or marker the library reads.
inline constexpr std::size_t kMaxReadBytes = std::size_t{16} * 1024 * 1024;

// The whole content of a regular file of at most `maxBytes`, read through a descriptor that no
// exec keeps (a stream opened by the standard library would be kept). nullopt when it cannot
// be opened or read; errno then says why: EISDIR for a folder, EINVAL for anything else but a
// regular file (a FIFO, a device, a link to one), EFBIG past the bound. Neither ever waits for
// another process.
std::optional<Bytes> readWholeFile(const std::string& path);
std::optional<std::string> readTextFile(const std::string& path,
                                        std::size_t maxBytes = kMaxReadBytes);

// Creates `path` and its missing parents with `mode`; true when it is a directory afterwards.
bool makeDirectories(const std::string& path, unsigned mode);

}  // namespace quorvel::platform
