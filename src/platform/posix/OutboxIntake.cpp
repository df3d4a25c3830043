// The intake file's framing: a batch written in one framed write(), read back frame by frame
// up to the first one cut short, and the file's lock for whoever takes it whole.
#include "platform/posix/OutboxIntake.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <limits>

#include "platform/AtomicFile.h"

namespace quorvel::platform {
namespace {

// A frame: its checksum (8 bytes), its payload's length (4), then the payload: for each
// change its id (8), 1 when it has content (1), the content's length (4) and the content.
constexpr std::size_t kFrameHead = 12;
constexpr std::size_t kChangeHead = 13;
// A batch larger than this is refused (and a frame claiming more is garbage).
constexpr std::uint64_t kMaxPayload = std::numeric_limits<std::uint32_t>::max();

template <typename T>
void put(std::string& out, T value) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  out.append(bytes, sizeof(T));
}

template <typename T>
T get(const char* in) {
  T value;
  std::memcpy(&value, in, sizeof(T));
  return value;
}

// Tells a whole frame from one cut short or overwritten by chance: eight bytes a step, so that
// the writer's thread spends next to nothing on it.
std::uint64_t checksum(const char* data, std::size_t size) {
  std::uint64_t h = 0x9E3779B97F4A7C15ULL ^ size;
  std::size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    h = (h ^ get<std::uint64_t>(data + i)) * 0xFF51AFD7ED558CCDULL;
    h ^= h >> 32;
  }
  std::uint64_t tail = 0;
  std::memcpy(&tail, data + i, size - i);
  h = (h ^ tail) * 0xC4CEB9FE1A85EC53ULL;
  return h ^ (h >> 29);
}

bool flockRetrying(int fd, int operation) noexcept {
  int rc = 0;
  while ((rc = ::flock(fd, operation)) != 0 && errno == EINTR) {
  }
  return rc == 0;
}

// Adds the frame's changes, found at `offset` in the file, to `out`; false when the payload
// does not parse.
bool readPayload(const char* p, std::size_t size, std::uint64_t offset,
                 std::vector<OutboxIntake::Entry>& out) {
  std::vector<OutboxIntake::Entry> entries;
  while (size > 0) {
    if (size < kChangeHead)
      return false;
    OutboxIntake::Entry entry;
    entry.id = get<std::int64_t>(p);
    entry.removed = p[8] == 0;
    entry.place = {offset + kChangeHead, get<std::uint32_t>(p + 9)};
    p += kChangeHead;
    size -= kChangeHead;
    if (entry.place.length > size)
      return false;
    p += entry.place.length;
    size -= entry.place.length;
    offset += kChangeHead + entry.place.length;
    entries.push_back(entry);
  }
  out.insert(out.end(), entries.begin(), entries.end());
  return true;
}

}  // namespace

std::shared_ptr<OutboxIntake> OutboxIntake::create(const std::string& path, std::string& reason) {
  const int fd =
      ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    reason = "cannot create " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  return std::shared_ptr<OutboxIntake>(new OutboxIntake(fd));
}

std::shared_ptr<OutboxIntake> OutboxIntake::adopt(const std::string& path,
                                                  std::vector<Entry>& entries) {
  const int fd = ::open(path.c_str(), O_RDWR | O_APPEND | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0)
    return nullptr;
  std::shared_ptr<OutboxIntake> intake(new OutboxIntake(fd));
  struct stat info {};
  if (::fstat(fd, &info) != 0)
    return nullptr;
  std::string file(static_cast<std::size_t>(std::max<off_t>(info.st_size, 0)), '\0');
  Place whole{0, static_cast<std::uint32_t>(std::min<std::size_t>(file.size(), kMaxPayload))};
  if (!intake->readAt(whole, file))
    return nullptr;
  std::size_t at = 0;
  while (file.size() - at >= kFrameHead) {
    const auto sum = get<std::uint64_t>(file.data() + at);
    const auto length = get<std::uint32_t>(file.data() + at + 8);
    if (length > file.size() - at - kFrameHead)
      break;  // cut short
    const char* payload = file.data() + at + kFrameHead;
    if (checksum(payload, length) != sum || !readPayload(payload, length, at + kFrameHead, entries))
      break;  // garbled: nothing after it can be trusted
    at += kFrameHead + length;
  }
  intake->size_ = file.size();
  return intake;
}

bool OutboxIntake::lock() noexcept {
  return flockRetrying(fd_.get(), LOCK_EX);
}

bool OutboxIntake::tryLock() noexcept {
  return flockRetrying(fd_.get(), LOCK_EX | LOCK_NB);
}

void OutboxIntake::unlock() noexcept {
  ::flock(fd_.get(), LOCK_UN);
}

bool OutboxIntake::removed() const noexcept {
  struct stat info {};
  return ::fstat(fd_.get(), &info) != 0 || info.st_nlink == 0;
}

bool OutboxIntake::isAt(const std::string& path) const noexcept {
  struct stat held {};
  struct stat atPath {};
  return ::fstat(fd_.get(), &held) == 0 && held.st_nlink > 0 &&
         ::lstat(path.c_str(), &atPath) == 0 && atPath.st_dev == held.st_dev &&
         atPath.st_ino == held.st_ino;
}

OutboxIntake::~OutboxIntake() = default;

bool OutboxIntake::append(const std::vector<OutboxChange>& changes,
                          std::vector<Place>& places) noexcept {
  // Half a frame left by a failed write goes before anything is appended after it; until it
  // can go (a disk that fails for a while), nothing is.
  if (tailDirty_) {
    if (::ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0)
      return false;
    tailDirty_ = false;
  }
  try {
    std::uint64_t payloadSize = 0;
    for (const auto& change : changes)
      payloadSize += kChangeHead + (change.content ? change.content->size() : 0);
    if (payloadSize > kMaxPayload)
      return false;
    std::string frame;
    frame.reserve(kFrameHead + payloadSize);
    frame.append(kFrameHead, '\0');
    places.clear();
    places.reserve(changes.size());
    for (const auto& change : changes) {
      const auto length = static_cast<std::uint32_t>(change.content ? change.content->size() : 0);
      put(frame, change.id);
      frame.push_back(change.content ? '\1' : '\0');
      put(frame, length);
      places.push_back({size_ + frame.size(), length});
      if (change.content)
        frame += *change.content;
    }
    const std::uint64_t sum = checksum(frame.data() + kFrameHead, frame.size() - kFrameHead);
    std::memcpy(frame.data(), &sum, sizeof sum);
    const auto length = static_cast<std::uint32_t>(payloadSize);
    std::memcpy(frame.data() + 8, &length, sizeof length);
    if (!writeAll(fd_.get(), frame.data(), frame.size())) {
      // Half a frame would end the file for a reader, hiding every later batch.
      tailDirty_ = ::ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0;
      return false;
    }
    size_ += frame.size();
    return true;
  } catch (...) {
    return false;  // out of memory: the batch is not written
  }
}

bool OutboxIntake::readAt(Place place, std::string& content) const noexcept {
  try {
    content.resize(place.length);
    return readAllAt(fd_.get(), content.data(), place.length, static_cast<off_t>(place.offset));
  } catch (...) {
    return false;
  }
}

}  // namespace quorvel::platform
