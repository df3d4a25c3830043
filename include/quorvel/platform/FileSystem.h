// The application's directories and the few file operations the library needs.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <quorvel/Json.h>
#include <quorvel/platform/Clock.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

class FileSystem {
 public:
  FileSystem() = default;
  FileSystem(const FileSystem&) = delete;
  FileSystem& operator=(const FileSystem&) = delete;
  virtual ~FileSystem() = default;

  virtual std::string libraryDirectory() const = 0;
  virtual std::string cachesDirectory() const = 0;
  virtual std::string temporaryDirectory() const = 0;

  virtual std::optional<TimePoint> creationDate(const std::string& path) const = 0;
  virtual std::optional<TimePoint> modificationDate(const std::string& path) const = 0;

  virtual bool fileExists(const std::string& path) const = 0;
  // Creates the directory and its missing parents; true when it exists afterwards.
  virtual bool createDirectory(const std::string& path) = 0;
  // The names (not paths) of the entries of a directory, sorted; nullopt when it cannot be read.
  virtual std::optional<std::vector<std::string>> contentsOfDirectory(
      const std::string& path) const = 0;
  virtual std::optional<Bytes> readFile(const std::string& path) const = 0;
  // Replaces the file's content as a whole: after a crash or a full disk the file holds
  // either its old or its new content, never a part. `errorReason` (optional) says why not.
  virtual bool writeFileAtomically(const std::string& path, const Bytes& content,
                                   std::string* errorReason) = 0;
  bool writeFileAtomically(const std::string& path, const Bytes& content) {
    return writeFileAtomically(path, content, nullptr);
  }
  virtual bool removeFile(const std::string& path, std::string* errorReason) = 0;
  bool removeFile(const std::string& path) { return removeFile(path, nullptr); }
  // Gives the file at `from` the name `to`, replacing a file of that name, in one step where
  // the file system can. False (with `errorReason`, optional) when it could not, a read-only
  // folder among the causes; `from` is then left as it was. The default copies the file and
  // removes the original: a system that can rename does better.
  virtual bool moveFile(const std::string& from, const std::string& to, std::string* errorReason) {
    const auto content = readFile(from);
    if (!content) {
      if (errorReason != nullptr)
        *errorReason = "cannot read " + from;
      return false;
    }
    if (!writeFileAtomically(to, *content, errorReason))
      return false;
    if (removeFile(from, errorReason))
      return true;
    removeFile(to);
    return false;
  }
  // Removes every file of `directory` (not its subdirectories). False when one is left.
  virtual bool removeFilesIn(const std::string& directory) {
    bool all = true;
    for (const auto& name : contentsOfDirectory(directory).value_or(std::vector<std::string>{})) {
      std::string path = directory;
      path.append("/").append(name);
      all = removeFile(path) && all;
    }
    return all;
  }
  // Dates the app's directories from now, whatever the system recorded: the install is being
  // forgotten, and the next one's dates must not lead back to it. False when it could not.
  virtual bool forgetCreationDates() { return true; }
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
