// A child made by fork() never keeps its parent's data directory: the descriptors the library
// locks or writes are closed in the child, so that the directory is free once the parent has
// closed it (or ended), however long the child lives; and none of them survives an exec.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include <quorvel/QuorvelTracker.h>
#include <quorvel/testing/TestPlatform.h>

#include "platform/ParentOnlyDescriptor.h"
#include "platform/posix/JsonFilePreferencesStore.h"
#include "platform/posix/SqliteOutboxStore.h"
#include "support/Eventually.h"
#include "support/TempDir.h"

namespace quorvel::platform {
namespace {

// A forked child that lives on (3 s at most) after checking `inChild`; killed by its owner.
class LingeringChild {
 public:
  template <typename Check>
  explicit LingeringChild(Check inChild) {
    if (::pipe2(verdict_, O_CLOEXEC) != 0)
      return;
    pid_ = ::fork();
    if (pid_ != 0)
      return;
    const char ok = inChild() ? '1' : '0';
    static_cast<void>(::write(verdict_[1], &ok, 1));
    for (int i = 0; i < 30; ++i)
      ::usleep(100'000);
    ::_exit(0);
  }
  ~LingeringChild() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(verdict_[0]);
    ::close(verdict_[1]);
  }
  LingeringChild(const LingeringChild&) = delete;
  LingeringChild& operator=(const LingeringChild&) = delete;
  pid_t pid() const { return pid_; }
  // Whether the child's check held.
  bool passedItsCheck() const {
    char ok = 0;
    return ::read(verdict_[0], &ok, 1) == 1 && ok == '1';
  }

 private:
  int verdict_[2] = {-1, -1};
  pid_t pid_ = -1;
};

TEST(ForkTest, AChildThatLivesOnNeverKeepsItsParentsDataDirectory) {
  test::TempDir dir;
  const std::string file = dir / "Library/QuorvelOutbox.sqlite";
  auto parent = std::make_unique<SqliteOutboxStore>(file);
  std::string reason;
  ASSERT_TRUE(parent->open(reason)) << reason;
  ASSERT_TRUE(parent->apply({{1, "kept"}}));
  // Another descriptor locked at the fork, as the preferences' folder lock may be.
  ParentOnlyDescriptor folder(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(folder.get(), LOCK_EX | LOCK_NB), 0);
  const int folderFd = folder.get();

  LingeringChild child([&] {
    // Its copies know they are closed: nothing of the child's own is closed by them.
    return ::fcntl(folderFd, F_GETFD) == -1 && folder.get() == -1 && folder.closedByFork();
  });
  ASSERT_GT(child.pid(), 0);
  // Once the child runs its own code: the descriptors go in its fork handler, before that.
  EXPECT_TRUE(child.passedItsCheck());
  parent.reset();  // the parent's tracker and store go; the child lives on
  folder.reset();

  SqliteOutboxStore next(file);
  EXPECT_TRUE(next.open(reason)) << reason;
  EXPECT_FALSE(next.heldByAnotherProcess());
  ASSERT_EQ(next.load(-1, 10).size(), 1U);
  const int again = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_EQ(::flock(again, LOCK_EX | LOCK_NB), 0);
  ::close(again);
}

// A child's copy of an open store is inert: it neither reopens its parent's files nor lets
// go of its parent's lock.
TEST(ForkTest, AChildsCopyOfAnOpenStoreIsLeftAlone) {
  test::TempDir dir;
  const std::string file = dir / "Library/QuorvelOutbox.sqlite";
  SqliteOutboxStore store(file);
  std::string reason;
  ASSERT_TRUE(store.open(reason)) << reason;
  LingeringChild child([&] {
    std::string why;
    return !store.open(why) && !store.apply({{2, "child"}}) && !store.destroy();
  });
  ASSERT_GT(child.pid(), 0);
  EXPECT_TRUE(child.passedItsCheck());
  SqliteOutboxStore second(file);
  EXPECT_FALSE(second.open(reason));  // the parent still holds it
  EXPECT_TRUE(second.heldByAnotherProcess());
  EXPECT_TRUE(store.apply({{1, "parent"}}));
}

// A child that calls exec holds nothing: every descriptor the stores keep open in the data
// directory, SQLite's own among them, is closed on exec.
TEST(ForkTest, EveryDescriptorInTheDataDirectoryIsClosedOnExec) {
  test::TempDir dir;
  SqliteOutboxStore store(dir / "Library/QuorvelOutbox.sqlite");
  std::string reason;
  ASSERT_TRUE(store.open(reason)) << reason;
  ASSERT_TRUE(store.apply({{1, "one"}}));
  ASSERT_TRUE(store.sync());
  ASSERT_TRUE(store.apply({{2, "two"}}));
  JsonFilePreferencesStore preferences(dir / "Library/Preferences/app.json");
  preferences.setObject("k", Json("v"));
  ASSERT_TRUE(preferences.synchronize());
  int inDirectory = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    const auto target = std::filesystem::read_symlink(entry.path(), ec).string();
    if (ec || target.rfind(dir.path(), 0) != 0)
      continue;
    ++inDirectory;
    const int fd = std::stoi(entry.path().filename().string());
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << target;
  }
  EXPECT_GE(inDirectory, 4);  // the lock, the database, its log, the intake
}

// A child that destroys its copy of a tracker while, in its parent, a thread was inside one of
// the tracker's callbacks at the fork: the copy waits for nothing, as that thread did not come
// along (a child of a process inside a sync is the same case, with the store's locks).
TEST(ForkTest, AChildDestroysItsCopyOfATrackerAtOnce) {
  using namespace std::chrono_literals;
  test::TempDir dir;
  PosixPlatformOptions options;
  options.bundleIdentifier = "com.example.fork";
  options.dataDirectory = dir / "app";
  options.keychainDirectory = dir / "keychain";
  auto kit = testkit::makeTestPlatform(options, "FORK-KEY");
  auto tracker = std::make_unique<QuorvelTracker>(kit.platform);
  tracker->setQuorvelDevKey(std::string("FORK-KEY"));
  tracker->setAppleAppID(std::string("123456789"));
  std::mutex mutex;
  std::condition_variable changed;
  bool inside = false;
  bool release = false;
  auto delegate = std::make_shared<QuorvelTrackerDelegate>();
  delegate->onConversionDataReceived = [&](const Json&) {
    std::unique_lock lock(mutex);
    inside = true;
    changed.notify_all();
    changed.wait_for(lock, 20s, [&] { return release; });
  };
  tracker->setDelegate(delegate);
  tracker->trackAppLaunch();
  std::thread driver([&] { kit.dispatcher->advance(10s); });
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, 20s, [&] { return inside; }));
  }
  const pid_t child = ::fork();
  if (child == 0) {
    tracker.reset();
    ::_exit(0);
  }
  {
    const std::lock_guard lock(mutex);
    release = true;
  }
  changed.notify_all();
  driver.join();
  ASSERT_GT(child, 0);
  int status = -1;
  const bool ended =
      test::eventually([&] { return ::waitpid(child, &status, WNOHANG) == child; }, 5s);
  if (!ended) {
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
  }
  EXPECT_TRUE(ended) << "the child hung destroying its copy of the tracker";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
}  // namespace quorvel::platform
