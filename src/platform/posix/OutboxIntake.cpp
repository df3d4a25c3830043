#include "platform/posix/OutboxIntake.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>

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

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Appends the frame's changes to `out`; false when the payload does not parse.
bool readPayload(const char* p, std::size_t size, std::vector<OutboxChange>& out) {
  std::vector<OutboxChange> changes;
  while (size > 0) {
    if (size < kChangeHead)
      return false;
    OutboxChange change;
    change.id = get<std::int64_t>(p);
    const bool hasContent = p[8] != 0;
    const auto length = get<std::uint32_t>(p + 9);
    p += kChangeHead;
    size -= kChangeHead;
    if (length > size)
      return false;
    if (hasContent)
      change.content.emplace(p, length);
    p += length;
    size -= length;
    changes.push_back(std::move(change));
  }
  out.insert(out.end(), std::make_move_iterator(changes.begin()),
             std::make_move_iterator(changes.end()));
  return true;
}

}  // namespace

std::shared_ptr<OutboxIntake> OutboxIntake::create(const std::string& path, bool exclusive,
                                                   std::string& reason) {
  const int flags =
      O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | (exclusive ? O_EXCL : O_TRUNC);
  const int fd = ::open(path.c_str(), flags, 0600);
  if (fd < 0) {
    reason = "cannot create " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  return std::shared_ptr<OutboxIntake>(new OutboxIntake(fd));
}

std::vector<OutboxChange> OutboxIntake::read(const std::string& path) {
  std::vector<OutboxChange> changes;
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return changes;
  const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::size_t at = 0;
  while (file.size() - at >= kFrameHead) {
    const auto sum = get<std::uint64_t>(file.data() + at);
    const auto length = get<std::uint32_t>(file.data() + at + 8);
    if (length > file.size() - at - kFrameHead)
      break;  // cut short
    const char* payload = file.data() + at + kFrameHead;
    if (checksum(payload, length) != sum || !readPayload(payload, length, changes))
      break;  // garbled: nothing after it can be trusted
    at += kFrameHead + length;
  }
  return changes;
}

OutboxIntake::~OutboxIntake() {
  ::close(fd_);
}

bool OutboxIntake::append(const std::vector<OutboxChange>& changes,
                          std::vector<Place>& places) noexcept {
  if (size_ == std::numeric_limits<std::uint64_t>::max())
    return false;
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
    if (!writeAll(fd_, frame.data(), frame.size())) {
      // Half a frame would end the file for a reader, hiding every later batch.
      if (::ftruncate(fd_, static_cast<off_t>(size_)) != 0)
        size_ = std::numeric_limits<std::uint64_t>::max();  // refuse from now on
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
    std::size_t done = 0;
    while (done < place.length) {
      const ssize_t n = ::pread(fd_, content.data() + done, place.length - done,
                                static_cast<off_t>(place.offset + done));
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace quorvel::platform
