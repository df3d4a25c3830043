// Without HOME the library keeps its data under a shared temporary folder: only in a folder
// that is this user's own, private, and not a link another user planted; the same one at
// every start.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/posix/PosixServices.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace quorvel::platform {
namespace {

namespace fs = std::filesystem;

TEST(FallbackFolder, IsUsedOnlyWhenPrivateToThisUser) {
  test::TempDir base;
  test::TestPlatform fakes;
  const std::string expected = base / ("quorvel-" + std::to_string(getuid()));
  struct Case {
    const char* name;
    std::function<void()> prepare;
    bool used;
  };
  const std::string elsewhere = base / "planted";
  const Case cases[] = {
      {"missing: made private", [] {}, true},
      {"a link to another folder",
       [&] {
         fs::create_directory(elsewhere);
         fs::create_directory_symlink(elsewhere, expected);
       },
       false},
      {"open to others",
       [&] {
         fs::create_directory(expected);
         ::chmod(expected.c_str(), 0755);
       },
       false},
      {"a file", [&] { std::ofstream(expected) << "x"; }, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(base.path());
    fs::create_directories(base.path());
    c.prepare();
    fakes.systemLog->clear();
    const std::string chosen = privateFallbackDirectory(base.path(), *fakes.systemLog);
    struct stat info {};
    ASSERT_EQ(::lstat(chosen.c_str(), &info), 0) << chosen;
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777U, 0700U);
    EXPECT_EQ(chosen == expected, c.used) << chosen;
    EXPECT_EQ(fakes.systemLog->count("is not a private folder of this user"), c.used ? 0U : 1U);
    // The next start finds the same folder, and with it the install.
    EXPECT_EQ(privateFallbackDirectory(base.path(), *fakes.systemLog), chosen);
    if (fs::exists(elsewhere)) {
      EXPECT_TRUE(fs::is_empty(elsewhere));  // nothing went through the link
    }
  }
}

}  // namespace
}  // namespace quorvel::platform
