// Durable, all-or-nothing file replacement: temp file, fsync, rename, fsync of the directory.
#pragma once

#include <functional>
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

// Creates `path` and its missing parents with `mode`; true when it is a directory afterwards.
bool makeDirectories(const std::string& path, unsigned mode);

}  // namespace quorvel::platform
