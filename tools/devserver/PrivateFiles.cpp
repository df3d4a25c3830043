#include "PrivateFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace quorvel::devserver {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const std::string& what, const fs::path& path) {
  throw std::runtime_error("cannot " + what + " " + path.string() + ": " + std::strerror(errno));
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

void makePrivateDirectory(const fs::path& dir) {
  if (dir.has_parent_path())
    fs::create_directories(dir.parent_path());
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
    fail("make", dir);
  // An existing folder (an older run's, or one the developer named) is closed too.
  if (::chmod(dir.c_str(), 0700) != 0)
    fail("make private", dir);
}

void makePrivateFile(const fs::path& file) {
  const Descriptor fd(::open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (fd.get() < 0)
    fail("open", file);
  if (::fchmod(fd.get(), 0600) != 0)
    fail("make private", file);
}

void closeIfPresent(const fs::path& file) {
  const Descriptor fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() >= 0)
    (void)::fchmod(fd.get(), 0600);
}

void writePrivateFileAtomically(const fs::path& file, const std::string& content) {
  const fs::path temporary = file.string() + ".tmp";
  fs::remove(temporary);
  {
    const Descriptor fd(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0)
      fail("create", temporary);
    std::size_t written = 0;
    while (written < content.size()) {
      const ssize_t n = ::write(fd.get(), content.data() + written, content.size() - written);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        fail("write", temporary);
      written += static_cast<std::size_t>(n);
    }
  }
  fs::rename(temporary, file);
}

}  // namespace quorvel::devserver
