// The emulator's CA signs for every service host a developer's build trusts it for: its key
// files are private, never written through a link, and a CA key it did not make is never used.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "Certificates.h"
#include "support/TempDir.h"

namespace quorvel::devserver {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

unsigned modeOf(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 ? info.st_mode & 07777U : 0U;
}

TEST(EmulatorFiles, KeysArePrivateAndOnlyTheEmulatorsOwnCaIsKept) {
  test::TempDir dir;
  const std::string tls = dir / "tls";
  const auto first = makeCertificates(tls, {"localhost"});
  EXPECT_EQ(modeOf(tls), 0700U);
  EXPECT_EQ(modeOf(tls + "/ca-key.pem"), 0600U);
  EXPECT_EQ(modeOf(first.keyFile), 0600U);
  const std::string ownCa = contentOf(first.caFile);
  EXPECT_EQ(contentOf(ensureCertificates(tls, {"localhost"}).caFile), ownCa);  // kept

  // A key file that others can read is not the emulator's own: a new CA replaces it.
  ::chmod((tls + "/ca-key.pem").c_str(), 0644);
  const std::string replaced = contentOf(ensureCertificates(tls, {"localhost"}).caFile);
  EXPECT_NE(replaced, ownCa);
  EXPECT_EQ(modeOf(tls + "/ca-key.pem"), 0600U);

  // A link planted at a key's name: neither read as the CA key nor written through.
  const std::string planted = dir / "planted-key.pem";
  fs::copy_file(tls + "/ca-key.pem", planted);
  ::chmod(planted.c_str(), 0600);
  const std::string plantedText = contentOf(planted);
  fs::remove(tls + "/ca-key.pem");
  fs::create_symlink(planted, tls + "/ca-key.pem");
  fs::remove(tls + "/server-key.pem");
  fs::create_symlink(planted, tls + "/server-key.pem");
  EXPECT_NE(contentOf(ensureCertificates(tls, {"localhost"}).caFile), replaced);
  EXPECT_EQ(contentOf(planted), plantedText);
  EXPECT_FALSE(fs::is_symlink(tls + "/ca-key.pem"));
  EXPECT_FALSE(fs::is_symlink(tls + "/server-key.pem"));
}

}  // namespace
}  // namespace quorvel::devserver
