#include "Host.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

#include <quorvel/Json.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

extern char** environ;

namespace quorvel::chaos {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// Lines in a file of the host's own, mapped into memory: a line is in the kernel's copy the
// moment it is stored, so a SIGKILL keeps it, and stores into a mapping are not file writes,
// so the disk fault (a file size limit of 0) does not stop them. The file is made at its full
// size, sparse, by the harness before it starts the host (sizeFile), so that no fault can
// come first; readers stop at the first zero byte.
constexpr std::size_t kAcceptedSize = std::size_t{256} << 20;  // an hour of calls
constexpr std::size_t kLogSize = std::size_t{64} << 20;

bool sizeFile(const fs::path& file, std::size_t size) {
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0)
    return false;
  const bool sized = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
  ::close(fd);
  return sized;
}

class MappedLines {
 public:
  MappedLines(const fs::path& file, std::size_t size) : size_(size) {
    // Sized already (a size it has is no growth, which a file size limit of 0 allows).
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
      return;
    if (::ftruncate(fd, static_cast<off_t>(size)) == 0) {
      void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (p != MAP_FAILED)
        base_ = static_cast<char*>(p);
    }
    ::close(fd);
  }
  ~MappedLines() {
    if (base_ != nullptr)
      ::munmap(base_, size_);
  }
  MappedLines(const MappedLines&) = delete;
  MappedLines& operator=(const MappedLines&) = delete;

  explicit operator bool() const { return base_ != nullptr; }

  // False once the file is full. Any thread.
  bool add(std::string_view line) {
    const std::size_t at = used_.fetch_add(line.size());
    if (base_ == nullptr || at + line.size() >= size_)
      return false;
    std::memcpy(base_ + at, line.data(), line.size());
    return true;
  }

 private:
  const std::size_t size_;
  char* base_ = nullptr;
  std::atomic<std::size_t> used_{0};
};

bool logging() {
  return std::getenv("QUORVEL_CHAOS_LOG") != nullptr;
}

// The library's outbox, exit and answer lines, each after the wall time in seconds (the clock
// the emulator records by, so that a line can be set against what the emulator received), in
// the life's own log file (host-TAG.log).
class OutboxLines final : public quorvel::platform::SystemLog {
 public:
  explicit OutboxLines(const fs::path& file) : lines_(file, kLogSize) {}

  void write(std::string_view line) noexcept override {
    // A forked worker shares the mapping but not the place of the next line.
    if (::getpid() != pid_)
      return;
    if (line.find("outbox") == std::string_view::npos &&
        line.find("Outbox") == std::string_view::npos &&
        line.find("exit") == std::string_view::npos &&
        line.find("status =") == std::string_view::npos)
      return;
    char head[32];
    std::snprintf(head, sizeof head, "%.4f ", wallSeconds());
    try {
      lines_.add(std::string(head) + std::string(line) + "\n");
    } catch (...) {
    }
  }

 private:
  MappedLines lines_;
  const pid_t pid_ = ::getpid();
};

// Written at exit, after the library's own exit flush (registered before the tracker exists,
// so it runs after the tracker's handler): what the library says became of its reports.
fs::path gStatsFile;
void writeStats() {
  const QuorvelDeliveryStats s = QuorvelTracker::sharedTracker().deliveryStats();
  const quorvel::Json out = {{"accepted", s.accepted},
                             {"delivered", s.delivered},
                             {"refused", s.refused},
                             {"repeated", s.repeated},
                             {"waiting", s.waiting},
                             {"retrying", s.retrying},
                             {"keptAsFiles", s.keptAsFiles},
                             {"notKept", s.notKept},
                             {"droppedUnreadable", s.droppedUnreadable},
                             {"droppedOverAge", s.droppedOverAge},
                             {"heldElsewhere", s.dataDirectoryHeldElsewhere},
                             {"exitAt", wallSeconds()}};
  std::ofstream(gStatsFile) << out.dump() << "\n";
}

void configure(const HostArgs& a, std::shared_ptr<OutboxLines> log) {
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.example.chaos";
  options.dataDirectory = (a.root / "app").string();
  options.keychainDirectory = (a.root / "keychain").string();
  options.extraCAFile = a.caFile;
  quorvel::Platform platform = quorvel::makePosixPlatform(options);
  if (log)
    platform.systemLog = std::move(log);
  quorvel::installPlatform(platform);
  auto& tracker = QuorvelTracker::sharedTracker();
  if (logging())
    tracker.setIsDebug(true);
  if (a.exitFlushMs >= 0)
    tracker.setExitFlushTimeout(std::chrono::milliseconds(a.exitFlushMs));
  tracker.setQuorvelDevKey(std::string(kDevKey));
  tracker.setAppleAppID(std::string(kApp));
  tracker.setHost(a.domain);
  tracker.setDisableIAdTracking(true);
  if (a.user != "-")
    tracker.setCustomerUserID(a.user);
}

// A worker forked without exec, as a host that runs a helper this way: it holds what the
// parent held at the fork (descriptors, locks, the tracker's memory without its threads),
// outlives the parent's kill, and ends with exit(), which runs the exit handlers.
void forkWorker(const HostArgs& a) {
  const pid_t child = ::fork();
  if (child != 0) {
    if (child > 0)
      std::ofstream(a.root / "children", std::ios::app) << child << "\n";
    return;
  }
  gStatsFile = a.root / ("stats-" + a.tag + "-child.json");
  std::this_thread::sleep_for(std::chrono::milliseconds(a.forkChildMs));
  std::exit(0);
}

bool stopAsked(const HostArgs& a) {
  return fs::exists(a.root / ("stop-" + a.tag));
}

}  // namespace

std::map<std::string, std::string> HostArgs::words() const {
  return {{"root", root.string()},
          {"accepted", accepted.string()},
          {"domain", domain},
          {"ca", caFile},
          {"first", std::to_string(firstSeq)},
          {"rate", std::to_string(rate)},
          {"tag", tag},
          {"user", user},
          {"exitflush", std::to_string(exitFlushMs)},
          {"fork", std::to_string(forkChildMs)},
          {"fulldisk", fullDisk ? "1" : "0"},
          {"fullexit", std::to_string(fullDiskExitMs)}};
}

HostArgs HostArgs::fromWords(int argc, char** argv, int first) {
  std::map<std::string, std::string> w;
  for (int i = first; i < argc; ++i) {
    const std::string word = argv[i];
    if (const auto eq = word.find('='); eq != std::string::npos)
      w[word.substr(0, eq)] = word.substr(eq + 1);
  }
  HostArgs a;
  a.root = w["root"];
  a.accepted = w["accepted"];
  a.domain = w["domain"];
  a.caFile = w["ca"];
  a.firstSeq = std::atoll(w["first"].c_str());
  a.rate = std::atoi(w["rate"].c_str());
  a.tag = w["tag"];
  a.user = w["user"].empty() ? "-" : w["user"];
  a.exitFlushMs = w["exitflush"].empty() ? -1 : std::atoi(w["exitflush"].c_str());
  a.forkChildMs = std::atoi(w["fork"].c_str());
  a.fullDisk = w["fulldisk"] == "1";
  a.fullDiskExitMs = std::atoi(w["fullexit"].c_str());
  return a;
}

int runHost(const HostArgs& a) {
  // A full disk answers EFBIG instead of killing the process: the harness may lower this
  // process's file size limit at any moment.
  ::signal(SIGXFSZ, SIG_IGN);
  // Mapped before a full disk's limit, though the harness sized its file already.
  auto log =
      logging() ? std::make_shared<OutboxLines>(a.root / ("host-" + a.tag + ".log")) : nullptr;
  if (a.fullDisk) {
    const rlimit none{0, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_FSIZE, &none) != 0)
      return 2;
  }
  gStatsFile = a.root / ("stats-" + a.tag + ".json");
  std::atexit(writeStats);
  configure(a, std::move(log));
  auto& tracker = QuorvelTracker::sharedTracker();
  tracker.trackAppLaunch();
  if (a.forkChildMs > 0)
    forkWorker(a);
  if (a.fullDisk) {
    std::this_thread::sleep_for(std::chrono::milliseconds(a.fullDiskExitMs));
    return 0;  // the exit flush runs, on a disk that is still full
  }
  // A host that sends nothing (the drain) notes nothing.
  std::optional<MappedLines> notes;
  if (a.rate > 0 && !notes.emplace(a.accepted / a.tag, kAcceptedSize))
    return 2;
  const int perTick = a.rate > 0 ? std::max(1, a.rate / 50) : 0;
  // Bounded: a host nobody stops ends by itself after an hour.
  const auto deadline = std::chrono::steady_clock::now() + 1h;
  for (long long seq = a.firstSeq; !stopAsked(a) && std::chrono::steady_clock::now() < deadline;) {
    for (int i = 0; i < perTick; ++i, ++seq) {
      // Each event's value is "SEQ/CALL_MS"; its line is noted once the call returned.
      const auto callMs = static_cast<long long>(std::llround(wallSeconds() * 1000.0));
      tracker.trackEvent("chaos", std::to_string(seq) + "/" + std::to_string(callMs));
      if (!notes->add(std::to_string(seq) + " " + std::to_string(callMs) + "\n"))
        return 2;
    }
    std::this_thread::sleep_for(20ms);
  }
  return 0;
}

pid_t spawnHost(const HostArgs& a) {
  std::vector<std::string> args = {"/proc/self/exe", "--host"};
  for (const auto& [key, value] : a.words())
    args.push_back(key + "=" + value);
  std::vector<char*> argv;
  for (const auto& s : args)
    argv.push_back(const_cast<char*>(s.c_str()));
  argv.push_back(nullptr);
  if ((a.rate > 0 && !sizeFile(a.accepted / a.tag, kAcceptedSize)) ||
      (logging() && !sizeFile(a.root / ("host-" + a.tag + ".log"), kLogSize)))
    return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const std::string log = (a.root / "host.log").string();
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

}  // namespace quorvel::chaos
