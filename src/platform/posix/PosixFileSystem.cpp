#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "platform/AtomicFile.h"
#include "platform/posix/PosixServices.h"

namespace quorvel::platform {
namespace {

TimePoint fromTimespec(std::int64_t sec, std::int64_t nsec) {
  return TimePoint(std::chrono::duration_cast<TimePoint::duration>(std::chrono::seconds(sec) +
                                                                   std::chrono::nanoseconds(nsec)));
}

std::optional<TimePoint> birthTime(const std::string& path) {
  struct statx sx {};
  if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &sx) != 0)
    return std::nullopt;
  if ((sx.stx_mask & STATX_BTIME) == 0U)
    return std::nullopt;
  return fromTimespec(sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec);
}

std::optional<TimePoint> markerTime(const std::string& directory) {
  std::istringstream in(
      readTextFile(directory + "/" + PosixFileSystem::kCreationMarker).value_or(std::string()));
  long long micros = 0;
  if (!(in >> micros))
    return std::nullopt;
  return TimePoint(
      std::chrono::duration_cast<TimePoint::duration>(std::chrono::microseconds(micros)));
}

std::string parentOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string(".")
         : slash == 0               ? std::string("/")
                                    : path.substr(0, slash);
}

}  // namespace

PosixFileSystem::PosixFileSystem(std::string dataDirectory) : data_(std::move(dataDirectory)) {
  // The Library directory's creation stands for the install date; where the file system
  // keeps no birth time, a marker written now keeps that date stable.
  const std::string library = libraryDirectory();
  const bool existed = fileExists(library);
  makeDirectories(cachesDirectory(), 0700);
  makeDirectories(temporaryDirectory(), 0700);
  if (!existed)
    markCreatedNow(library);
}

bool PosixFileSystem::markCreatedNow(const std::string& directory) {
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  const std::string text = std::to_string(micros) + "\n";
  return writeFileAtomically(directory + "/" + kCreationMarker, Bytes(text.begin(), text.end()));
}

// The marker first: a forgotten install's directories keep their birth time, and the new
// install's dates must not lead back to the old one.
std::optional<TimePoint> PosixFileSystem::creationDate(const std::string& path) const {
  if (auto marked = markerTime(path))
    return marked;
  if (auto born = birthTime(path))
    return born;
  return modificationDate(path);
}

std::optional<TimePoint> PosixFileSystem::modificationDate(const std::string& path) const {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    return std::nullopt;
  return fromTimespec(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
}

bool PosixFileSystem::fileExists(const std::string& path) const {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

bool PosixFileSystem::createDirectory(const std::string& path) {
  return makeDirectories(path, 0700);
}

std::optional<std::vector<std::string>> PosixFileSystem::contentsOfDirectory(
    const std::string& path) const {
  DIR* dir = ::opendir(path.c_str());
  if (dir == nullptr)
    return std::nullopt;
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name(entry->d_name);
    if (name != "." && name != "..")
      names.push_back(name);
  }
  ::closedir(dir);
  // A stable order: the directory's own order depends on the file system.
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<Bytes> PosixFileSystem::readFile(const std::string& path) const {
  return readWholeFile(path);
}

bool PosixFileSystem::writeFileAtomically(const std::string& path, const Bytes& content,
                                          std::string* errorReason) {
  return platform::writeFileAtomically(path, content, {}, errorReason) ==
         AtomicWriteResult::written;
}

bool PosixFileSystem::removeFilesIn(const std::string& directory) {
  bool all = true;
  bool any = false;
  for (const auto& name : contentsOfDirectory(directory).value_or(std::vector<std::string>{})) {
    std::string path = directory;
    path.append("/").append(name);
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || S_ISDIR(st.st_mode))
      continue;
    const bool removed = ::unlink(path.c_str()) == 0 || errno == ENOENT;
    any = any || removed;
    all = all && removed;
  }
  if (any)
    syncDirectory(directory);
  return all;
}

bool PosixFileSystem::forgetCreationDates() {
  // The temporary directory is dated by its last change.
  const bool temporary = ::utimensat(AT_FDCWD, temporaryDirectory().c_str(), nullptr, 0) == 0;
  return markCreatedNow(libraryDirectory()) && temporary;
}

bool PosixFileSystem::moveFile(const std::string& from, const std::string& to,
                               std::string* errorReason) {
  if (::rename(from.c_str(), to.c_str()) == 0) {
    syncDirectory(parentOf(to));
    return true;
  }
  if (errorReason != nullptr)
    *errorReason = std::strerror(errno);
  return false;
}

bool PosixFileSystem::removeFile(const std::string& path, std::string* errorReason) {
  if (::unlink(path.c_str()) == 0) {
    // Durable before anyone lists the directory again: a deleted request that came back
    // after a crash would be replayed twice.
    syncDirectory(parentOf(path));
    return true;
  }
  if (errorReason != nullptr)
    *errorReason = std::strerror(errno);
  return false;
}

}  // namespace quorvel::platform
