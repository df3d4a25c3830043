// Two storage faults, counted (figures, not a test):
//  - fork: a process opens the outbox, forks a child that lives on, and exits; does the next
//    start get the data directory, or is it refused as held by another process?
//  - a read-only start: 41 kept requests, one start whose folder cannot be changed, then a
//    writable one; how many requests are sent more than once?
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include <quorvel/testing/MemoryServices.h>
#include <quorvel/testing/VirtualTime.h>

#include "cache/QuorvelRequestCache.h"
#include "log/Log.h"
#include "log/QuorvelProxyManager.h"
#include "platform/posix/SqliteOutboxStore.h"

namespace {

using namespace quorvel;
using namespace std::chrono_literals;

// One trial of the fork case: true when the next start got the directory.
bool nextStartGetsTheDirectory(const std::string& file) {
  const pid_t parent = ::fork();
  if (parent == 0) {
    platform::SqliteOutboxStore store(file);
    std::string reason;
    if (!store.open(reason) || !store.apply({{1, "kept"}}))
      ::_exit(1);
    int running[2];
    if (::pipe(running) != 0)
      ::_exit(1);
    if (::fork() == 0) {  // the worker: says it runs, lives on for 3 s, then ends
      static_cast<void>(::write(running[1], "r", 1));
      ::sleep(3);
      ::_exit(0);
    }
    char r = 0;
    static_cast<void>(::read(running[0], &r, 1));
    ::_exit(0);  // the parent ends while its worker lives
  }
  ::waitpid(parent, nullptr, 0);
  platform::SqliteOutboxStore next(file);
  std::string reason;
  const bool opened = next.open(reason);
  if (!opened)
    std::printf("  refused: %s\n", reason.c_str());
  return opened;
}

// A folder that refuses every change while `readOnly` is set, as a read-only mount does.
class SwitchableFileSystem final : public platform::FileSystem {
 public:
  bool readOnly = false;
  std::string libraryDirectory() const override { return files_.libraryDirectory(); }
  std::string cachesDirectory() const override { return files_.cachesDirectory(); }
  std::string temporaryDirectory() const override { return files_.temporaryDirectory(); }
  std::optional<platform::TimePoint> creationDate(const std::string& p) const override {
    return files_.creationDate(p);
  }
  std::optional<platform::TimePoint> modificationDate(const std::string& p) const override {
    return files_.modificationDate(p);
  }
  bool fileExists(const std::string& p) const override { return files_.fileExists(p); }
  bool createDirectory(const std::string& p) override {
    return !readOnly && files_.createDirectory(p);
  }
  std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& p) const override {
    return files_.contentsOfDirectory(p);
  }
  std::optional<Bytes> readFile(const std::string& p) const override { return files_.readFile(p); }
  bool writeFileAtomically(const std::string& p, const Bytes& c, std::string* why) override {
    if (readOnly && why != nullptr)
      *why = "Read-only file system";
    return !readOnly && files_.writeFileAtomically(p, c, why);
  }
  bool removeFile(const std::string& p, std::string* why) override {
    if (readOnly && why != nullptr)
      *why = "Read-only file system";
    return !readOnly && files_.removeFile(p, why);
  }

 private:
  testkit::MemoryFileSystem files_;
};

// One start: a fresh answer starts the replay; every replayed request is answered. Returns
// how many were sent, counted by content in `sends`.
std::size_t replayOneStart(const std::shared_ptr<const Platform>& platform,
                           testkit::VirtualDispatcher& dispatcher,
                           std::map<std::string, int>& sends) {
  const auto log =
      std::make_shared<const Log>(std::make_shared<LogSwitches>(), platform->clock,
                                  platform->systemLog, &QuorvelProxyManager::sharedManager());
  std::shared_ptr<QuorvelRequestCache> cache;
  std::size_t sent = 0;
  cache =
      std::make_shared<QuorvelRequestCache>(platform, log, [&](const QuorvelRequestCacheData& r) {
        ++sent;
        const std::string url = r.requestURL().value_or("");
        ++sends[url.substr(0, url.find("&timeincache"))];
        dispatcher.mainQueue()->async([&cache, r] {
          cache->deleteRequest(r);
          cache->sendNextCachedEvents();
        });
      });
  cache->processCache();
  for (int i = 0; i < 200; ++i)
    dispatcher.advance(100ms);
  return sent;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::puts(
        "usage: quorvel_storage_faults   (no options: a fork and a read-only start, counted)");
    return std::string_view(argv[1]) == "--help" ? 0 : 2;
  }
  constexpr int kTrials = 5;
  int got = 0;
  for (int i = 0; i < kTrials; ++i) {
    const auto dir = std::filesystem::temp_directory_path() /
                     ("quorvel-fork-" + std::to_string(::getpid()) + "-" + std::to_string(i));
    std::filesystem::create_directories(dir);
    got += nextStartGetsTheDirectory((dir / "QuorvelOutbox.sqlite").string()) ? 1 : 0;
    std::filesystem::remove_all(dir);
  }
  std::printf("fork: the next start got the data directory in %d of %d trials\n", got, kTrials);

  auto clock = std::make_shared<testkit::VirtualClock>();
  auto dispatcher = std::make_shared<testkit::VirtualDispatcher>(clock);
  auto files = std::make_shared<SwitchableFileSystem>();
  Platform p;
  p.clock = clock;
  p.dispatcher = dispatcher;
  p.fileSystem = files;
  p.systemLog = std::make_shared<testkit::CapturingSystemLog>();
  const auto platform = std::make_shared<const Platform>(p);
  {
    const auto log = std::make_shared<const Log>(
        std::make_shared<LogSwitches>(), clock, p.systemLog, &QuorvelProxyManager::sharedManager());
    QuorvelRequestCache keeper(platform, log, nullptr);
    for (int i = 0; i < 41; ++i) {
      const std::string body = "report " + std::to_string(i);
      keeper.cacheRequest(QuorvelRequestCacheData("https://t.example/e?n=" + std::to_string(i),
                                                  Bytes(body.begin(), body.end()), "4.8.0"));
      clock->advance(1s);
    }
  }
  std::map<std::string, int> sends;
  files->readOnly = true;
  const std::size_t readOnly = replayOneStart(platform, *dispatcher, sends);
  files->readOnly = false;
  const std::size_t writable = replayOneStart(platform, *dispatcher, sends);
  const std::size_t after = replayOneStart(platform, *dispatcher, sends);
  int repeats = 0;
  for (const auto& [body, count] : sends)
    repeats += count - 1;
  std::printf(
      "read-only start: 41 kept; sent %zu at the read-only start, %zu at the writable one, %zu "
      "after; %zu of 41 sent at all, %d repeats\n",
      readOnly, writable, after, sends.size(), repeats);
  return 0;
}
