#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/AtomicFile.h"
#include "platform/posix/JsonFilePreferencesStore.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"
#include "util/BoundedJson.h"

namespace quorvel::platform {
namespace {

std::string readText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class PreferencesStoreTest : public ::testing::Test {
 protected:
  test::TestPlatform fakes;
  test::TempDir dir;
  std::string file() const { return dir / "Library/Preferences/app.json"; }
};

TEST_F(PreferencesStoreTest, EveryValueTypeSurvivesARestart) {
  const auto date = TimePoint(std::chrono::milliseconds(1'700'000'000'250));
  {
    JsonFilePreferencesStore store(file(), fakes.systemLog);
    store.setInteger("QuorvelCounter", 3);
    store.setDouble("QuorvelTimePassedSincePrevLaunch", 1.7e9 + 0.5);
    store.setString("QuorvelUserId", "1700000000000-42");
    store.setDate("date", date);
    store.setObject("data", Json::binary({0, 1, 255}));
    store.setObject("dict", Json{{"nested", Json::array({1, "two"})}});
    // As deep as any answer is read (binary data at the bottom): the file nests it deeper.
    Json deep = Json::binary({7});
    for (std::size_t level = 0; level < kMaxJsonDepth; ++level)
      deep = Json{{"d", std::move(deep)}};
    store.setObject("deep", deep);
    EXPECT_TRUE(store.synchronize());
  }
  JsonFilePreferencesStore reopened(file(), fakes.systemLog);
  EXPECT_EQ(reopened.integerForKey("QuorvelCounter"), 3);
  EXPECT_DOUBLE_EQ(reopened.doubleForKey("QuorvelTimePassedSincePrevLaunch"), 1.7e9 + 0.5);
  EXPECT_EQ(reopened.stringForKey("QuorvelUserId"), "1700000000000-42");
  EXPECT_EQ(reopened.dateForKey("date"), date);
  EXPECT_EQ(reopened.objectForKey("data"), Json::binary({0, 1, 255}));
  EXPECT_EQ(reopened.objectForKey("dict"), (Json{{"nested", Json::array({1, "two"})}}));
  EXPECT_EQ(reopened.objectForKey("missing"), std::nullopt);
  const auto deep = reopened.objectForKey("deep");
  ASSERT_TRUE(deep);
  EXPECT_FALSE(jsonDeeperThan(*deep));
  EXPECT_TRUE(jsonDeeperThan(*deep, kMaxJsonDepth - 1));
}

TEST_F(PreferencesStoreTest, TypedReadsCoerceLikeThePlatform) {
  test::MemoryPreferencesStore store;
  store.setObject("n", 42);
  store.setObject("s", "17abc");
  store.setObject("f", 2.9);
  store.setObject("b", true);
  store.setObject("o", Json::object());
  EXPECT_EQ(store.stringForKey("n"), "42");
  EXPECT_EQ(store.integerForKey("s"), 17);
  EXPECT_EQ(store.integerForKey("f"), 2);
  EXPECT_EQ(store.integerForKey("b"), 1);
  EXPECT_EQ(store.integerForKey("o"), 0);
  EXPECT_EQ(store.integerForKey("absent"), 0);
  EXPECT_EQ(store.stringForKey("o"), std::nullopt);
  EXPECT_EQ(store.dateForKey("n"), std::nullopt);
  store.setObject("n", Json());  // storing nil removes
  EXPECT_EQ(store.objectForKey("n"), std::nullopt);
}

// A FIFO in the file's place held the host's first call in open() before, and a link to a
// device read until memory ran out: such a file is set aside at once, as a damaged one is.
TEST_F(PreferencesStoreTest, CorruptOrForeignFileIsLoggedKeptAsideAndReplaced) {
  std::filesystem::create_directories(dir / "Library/Preferences");
  struct Case {
    std::string garbage;
    std::function<void()> make;  // instead of writing the garbage
  };
  const Case cases[] = {{"{\"QuorvelCounter\": 4", {}},
                        {std::string("\0\0\xff", 3), {}},
                        {"[1,2]", {}},
                        {std::string(100'000, '[') + std::string(100'000, ']'), {}},
                        {"", [&] { ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0); }},
                        {"", [&] { std::filesystem::create_symlink("/dev/zero", file()); }},
                        {"", [&] {  // a socket: its file stays once the descriptor closed
                           sockaddr_un at{};
                           at.sun_family = AF_UNIX;
                           std::strncpy(at.sun_path, file().c_str(), sizeof at.sun_path - 1);
                           const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
                           ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
                           ::close(fd);
                         }}};
  for (const auto& c : cases) {
    std::filesystem::remove(file());
    if (c.make)
      c.make();
    else
      std::ofstream(file(), std::ios::binary) << c.garbage;
    fakes.systemLog->clear();
    JsonFilePreferencesStore store(file(), fakes.systemLog);
    EXPECT_EQ(store.objectForKey("QuorvelCounter"), std::nullopt);
    EXPECT_EQ(fakes.systemLog->count("is corrupt"), 1U);
    if (!c.make) {
      EXPECT_EQ(readText(file() + ".corrupt"), c.garbage);
    }
    store.setInteger("QuorvelCounter", 1);
    ASSERT_TRUE(store.synchronize());
    EXPECT_EQ(Json::parse(readText(file()))["QuorvelCounter"], 1);
  }
}

TEST_F(PreferencesStoreTest, AFileThatCannotBeReadIsNeverWrittenOver) {
  std::filesystem::create_directories(dir / "Library/Preferences");
  struct Case {
    const char* name;
    std::function<void()> make;
    std::function<void()> undo;
  };
  const Case cases[] = {
      {"a directory in its place", [&] { std::filesystem::create_directories(file() + "/inside"); },
       [&] { std::filesystem::remove_all(file()); }},
      {"no permission to read",
       [&] {
         std::ofstream(file()) << R"({"QuorvelCounter": 7})";
         std::filesystem::permissions(file(), std::filesystem::perms::none);
       },
       [&] { std::filesystem::remove(file()); }},
      // Larger than the preferences ever grow: left alone, not set aside as damaged.
      {"too large to read",
       [&] {
         std::ofstream(file()) << "{}";
         std::filesystem::resize_file(file(), std::size_t{256} * 1024 * 1024 + 1);  // sparse
       },
       [&] { std::filesystem::remove(file()); }},
  };
  for (const auto& c : cases) {
    if (std::string(c.name) == "no permission to read" && ::geteuid() == 0)
      continue;  // root reads it anyway
    c.make();
    const auto before = std::filesystem::last_write_time(file());
    fakes.systemLog->clear();
    {
      JsonFilePreferencesStore store(file(), fakes.systemLog);
      EXPECT_EQ(store.integerForKey("QuorvelCounter"), 0) << c.name;
      store.setInteger("QuorvelCounter", 1);
      EXPECT_EQ(store.integerForKey("QuorvelCounter"), 1) << c.name;  // from memory
      EXPECT_FALSE(store.synchronize()) << c.name;
    }
    EXPECT_EQ(fakes.systemLog->count("cannot be read"), 1U) << c.name;
    EXPECT_EQ(fakes.systemLog->count("could not save"), 0U) << c.name;
    EXPECT_EQ(std::filesystem::last_write_time(file()), before) << c.name << ": replaced";
    c.undo();
  }
}

TEST_F(PreferencesStoreTest, UnwritableLocationFailsWithoutLosingTheValue) {
  std::ofstream(dir / "blocker") << "a file where a directory should be";
  JsonFilePreferencesStore store(dir / "blocker/prefs.json", fakes.systemLog);
  store.setInteger("k", 1);
  EXPECT_FALSE(store.synchronize());
  EXPECT_EQ(store.integerForKey("k"), 1);
  EXPECT_EQ(fakes.systemLog->count("could not save preferences"), 1U);
}

TEST_F(PreferencesStoreTest, DeathBetweenWriteAndRenameLeavesTheOldFileWhole) {
  {
    JsonFilePreferencesStore store(file(), fakes.systemLog);
    store.setString("k", "old");
    ASSERT_TRUE(store.synchronize());
  }
  const std::string before = readText(file());
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    AtomicWriteOptions options;
    options.beforeRename = [] { _exit(9); };
    const std::string text = R"({"k": "new"})";
    writeFileAtomically(file(), Bytes(text.begin(), text.end()), options, nullptr);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 9);
  EXPECT_EQ(readText(file()), before);
  JsonFilePreferencesStore reopened(file(), fakes.systemLog);
  EXPECT_EQ(reopened.stringForKey("k"), "old");
}

// Two processes of one app on one file: each one's write keeps the keys the other wrote since,
// and a removal or a forgetting by one reaches the other.
TEST_F(PreferencesStoreTest, TwoStoresOnOneFileKeepEachOthersKeys) {
  JsonFilePreferencesStore first(file(), fakes.systemLog);
  first.setInteger("shared", 1);
  first.setInteger("first_only", 1);
  ASSERT_TRUE(first.synchronize());
  JsonFilePreferencesStore second(file(), fakes.systemLog);
  EXPECT_EQ(second.integerForKey("shared"), 1);

  first.setInteger("written_by_first", 2);
  first.removeObjectForKey("first_only");
  ASSERT_TRUE(first.synchronize());
  second.setInteger("shared", 3);
  ASSERT_TRUE(second.synchronize());
  const Json saved = Json::parse(readText(file()));
  EXPECT_EQ(saved.value("written_by_first", 0), 2);
  EXPECT_FALSE(saved.contains("first_only"));
  EXPECT_EQ(saved.value("shared", 0), 3);
  EXPECT_EQ(second.integerForKey("written_by_first"), 2);  // seen once written over

  ASSERT_TRUE(first.removeAllObjects());
  ASSERT_TRUE(first.synchronize());
  second.setInteger("after_forget", 4);
  ASSERT_TRUE(second.synchronize());
  EXPECT_EQ(Json::parse(readText(file())), (Json{{"after_forget", 4}}));
}

TEST_F(PreferencesStoreTest, ConcurrentWritersNeverCorruptTheFile) {
  JsonFilePreferencesStore store(file(), fakes.systemLog);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&store, t] {
      for (int i = 0; i < 50; ++i) {
        store.setInteger("k" + std::to_string(t), i);
        store.synchronize();
      }
    });
  }
  for (auto& th : threads)
    th.join();
  const Json saved = Json::parse(readText(file()));
  for (int t = 0; t < 4; ++t)
    EXPECT_EQ(saved["k" + std::to_string(t)], 49);
}

}  // namespace
}  // namespace quorvel::platform
