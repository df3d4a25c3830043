#include "platform/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

namespace quorvel::platform {
namespace {

std::string parentOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos)
    return ".";
  if (slash == 0)
    return "/";
  return path.substr(0, slash);
}

bool writeAll(int fd, const Bytes& content) {
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

void syncDirectory(const std::string& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

namespace {

// Calls `step(done)` (a read or write of what is left, from `done` on) until `size` bytes are
// done, again after a signal; false at a failure or at nothing done.
template <typename Step>
bool allOf(std::size_t size, Step step) noexcept {
  for (std::size_t done = 0; done < size;) {
    const ssize_t n = step(done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

bool writeAll(int fd, const void* data, std::size_t size, off_t offset) noexcept {
  const auto* bytes = static_cast<const char*>(data);
  return allOf(size, [&](std::size_t done) {
    return offset < 0 ? ::write(fd, bytes + done, size - done)
                      : ::pwrite(fd, bytes + done, size - done, offset + static_cast<off_t>(done));
  });
}

bool readAllAt(int fd, void* into, std::size_t size, off_t offset) noexcept {
  auto* bytes = static_cast<char*>(into);
  return allOf(size, [&](std::size_t done) {
    return ::pread(fd, bytes + done, size - done, offset + static_cast<off_t>(done));
  });
}

namespace {

// One try; `failure` says why it failed.
AtomicWriteResult writeOnce(const std::string& path, const Bytes& content,
                            const AtomicWriteOptions& options, std::string* errorText,
                            int& failure) {
  auto fail = [&](const char* what, int err) {
    failure = err;
    if (errorText)
      *errorText = std::string(what) + " " + path + ": " + std::strerror(err);
    return AtomicWriteResult::failed;
  };
  const std::string dir = parentOf(path);
  std::string tmpl = path + ".tmp-XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  const int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0)
    return fail("cannot create a temporary file for", errno);
  const std::string tmp(name.data());
  ::fchmod(fd, static_cast<mode_t>(options.mode));
  if (!writeAll(fd, content) || ::fsync(fd) != 0) {
    const int err = errno;
    ::close(fd);
    ::unlink(tmp.c_str());
    return fail("cannot write", err);
  }
  if (::close(fd) != 0) {
    const int err = errno;
    ::unlink(tmp.c_str());
    return fail("cannot close", err);
  }
  if (options.beforeRename)
    options.beforeRename();
  if (options.replaceExisting) {
    if (::rename(tmp.c_str(), path.c_str()) != 0) {
      const int err = errno;
      ::unlink(tmp.c_str());
      return fail("cannot rename into", err);
    }
  } else {
    // link() fails when the name exists, which makes the create exclusive and atomic.
    const int rc = ::link(tmp.c_str(), path.c_str());
    const int err = errno;
    ::unlink(tmp.c_str());
    if (rc != 0) {
      if (err == EEXIST)
        return AtomicWriteResult::alreadyExists;
      return fail("cannot link into", err);
    }
  }
  syncDirectory(dir);
  return AtomicWriteResult::written;
}

}  // namespace

AtomicWriteResult writeFileAtomically(const std::string& path, const Bytes& content,
                                      const AtomicWriteOptions& options, std::string* errorText) {
  int failure = 0;
  const auto result = writeOnce(path, content, options, errorText, failure);
  // Another process of the app may remove the folder, the temporary file with it, while the
  // write is under way (a forgetting made there): the folder is made again, private, and the
  // write tried once more.
  if (result != AtomicWriteResult::failed || failure != ENOENT ||
      !makeDirectories(parentOf(path), 0700))
    return result;
  return writeOnce(path, content, options, errorText, failure);
}

std::optional<std::string> readTextFile(const std::string& path, std::size_t maxBytes) {
  // Without O_NONBLOCK a FIFO put in the file's place would hold this thread in open() until
  // some process writes to it; a regular file reads the same either way.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENXIO)
      errno = EINVAL;  // a socket, or a device with nothing behind it: no file of ours either
    return std::nullopt;
  }
  const auto fail = [fd](int err) -> std::optional<std::string> {
    ::close(fd);
    errno = err;
    return std::nullopt;
  };
  struct stat status {};
  if (::fstat(fd, &status) != 0)
    return fail(errno);
  // A device (a link to /dev/zero) never ends; a FIFO is no file of ours.
  if (!S_ISREG(status.st_mode))
    return fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  if (status.st_size > 0 && static_cast<std::uint64_t>(status.st_size) > maxBytes)
    return fail(EFBIG);
  std::string content;
  std::array<char, 8192> chunk{};
  for (;;) {
    const ssize_t n = ::read(fd, chunk.data(), chunk.size());
    if (n > 0) {
      // Files of /proc and /sys say size 0 and still have content: bounded as they are read.
      if (content.size() + static_cast<std::size_t>(n) > maxBytes)
        return fail(EFBIG);
      content.append(chunk.data(), static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      return fail(errno);
    }
  }
  ::close(fd);
  return content;
}

std::optional<Bytes> readWholeFile(const std::string& path) {
  auto text = readTextFile(path);
  if (!text)
    return std::nullopt;
  return Bytes(text->begin(), text->end());
}

bool makeDirectories(const std::string& path, unsigned mode) {
  if (path.empty())
    return false;
  std::size_t pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    const std::string part = path.substr(0, pos);
    if (part.empty())
      continue;
    if (::mkdir(part.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) {
      return false;
    }
  }
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace quorvel::platform
