// The emulator's files: its CA signs for every service host a developer's build trusts it
// for, its database holds developers' keys and their users' clear payloads. Every one is
// private; key files are never written through a link, and a CA key it did not make is never
// used.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "Certificates.h"
#include "PrivateFiles.h"
#include "RequestStore.h"
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

// The database holds developers' keys and clear payloads, server.json the admin token: the
// folder and every file are private from the start, and an older run's open ones are closed.
TEST(EmulatorFiles, TheRecordedRequestsAndTheTokenAreTheOwnersAlone) {
  test::TempDir dir;
  const mode_t mask = ::umask(022);  // as most shells leave it
  const std::string fresh = dir / "fresh";
  const std::string older = dir / "older";
  fs::create_directories(older);
  ::chmod(older.c_str(), 0755);
  std::ofstream(older + "/requests.sqlite") << "";  // SQLite makes a database of it
  ::chmod((older + "/requests.sqlite").c_str(), 0644);
  for (const auto& data : {fresh, older}) {
    SCOPED_TRACE(data);
    makePrivateDirectory(data);
    {
      RequestStore store(data + "/requests.sqlite");
      store.add(StoredRequest{});
      EXPECT_EQ(store.all().size(), 1U);  // committed: the log and shared memory exist
      writePrivateFileAtomically(data + "/server.json", "{}");
      EXPECT_EQ(modeOf(data), 0700U);
      for (const char* name :
           {"/requests.sqlite", "/requests.sqlite-wal", "/requests.sqlite-shm", "/server.json"})
        EXPECT_EQ(modeOf(data + name), 0600U) << name;
    }
  }
  ::umask(mask);
}

}  // namespace
}  // namespace quorvel::devserver
