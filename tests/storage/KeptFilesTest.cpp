// A kept request is claimed (its file renamed) before it is sent: a folder that cannot be
// changed sends nothing and keeps everything for a start that can, so that no request is
// sent twice because its file could not be deleted; a claim whose send failed, or whose
// process ended, is sent again.
#include <unistd.h>

#include <gtest/gtest.h>

#include "cache/QuorvelRequestCache.h"
#include "log/QuorvelProxyManager.h"
#include "net/QuorvelHTTPClient.h"
#include "support/TestPlatform.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

constexpr const char* kFolder = "/app/Library/Caches/QuorvelCache";
const Error kRefused{platform::kURLErrorDomain, -1004, "Could not connect to the server."};

class KeptFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakes.logSwitches->setDebug(true);
    start();
  }
  // A start of the app on the same files.
  void start() {
    cache = std::make_shared<QuorvelRequestCache>(
        fakes.shared(), fakes.log(), [this](const QuorvelRequestCacheData& r) {
          client->sendRequestEventToServer(r, true, std::nullopt, false, nullptr);
        });
    client = QuorvelHTTPClient::create(fakes.shared(), QuorvelProxyManager::sharedManager(),
                                       fakes.log(), cache);
  }
  void putFile(const std::string& name, const std::string& query) {
    fakes.fileSystem->createDirectory(kFolder);
    const std::string content = "version=4.8.0\nurl=https://t.example/e?" + query + "\ndata=AQI=";
    fakes.fileSystem->writeFileAtomically(std::string(kFolder) + "/" + name,
                                          Bytes(content.begin(), content.end()));
  }
  std::vector<std::string> files() {
    return fakes.fileSystem->contentsOfDirectory(kFolder).value_or(std::vector<std::string>{});
  }
  // A fresh request answered, and every replay it starts answered as `replay` says, up to
  // `bound` requests; the kept requests sent (their queries), in order.
  std::vector<std::string> freshAnswered(const std::function<bool(std::size_t)>& answered =
                                             [](std::size_t) { return true; }) {
    const std::size_t first = fakes.requests().size();
    client->sendRequestEventToServer(
        QuorvelRequestCacheData("https://t.example/fresh?x=1", Bytes{9}, "4.8.0"), false,
        std::nullopt, false, nullptr);
    std::vector<std::string> replayed;
    for (std::size_t i = first; i < fakes.requests().size() && i < first + 50; ++i) {
      const std::string url = fakes.requests()[i].url;
      if (i > first)
        replayed.push_back(
            url.substr(url.find('?') + 1, url.find("&timeincache") - url.find('?') - 1));
      if (i == first || answered(replayed.size() - 1))
        fakes.respond(i, 200, "{}");
      else
        fakes.fail(i, kRefused);
      fakes.dispatcher->advance(100ms);
    }
    return replayed;
  }

  test::TestPlatform fakes;
  std::shared_ptr<QuorvelRequestCache> cache;
  std::shared_ptr<QuorvelHTTPClient> client;
};

TEST_F(KeptFilesTest, AReadOnlyFolderSendsNothingAndAWritableStartSendsEachOnce) {
  for (const char* n : {"1", "2", "3"})
    putFile(std::string("69999999") + n + ".000000.qv", std::string("n=") + n);
  fakes.fileSystem->setReadOnly(true);
  EXPECT_TRUE(freshAnswered().empty());
  EXPECT_TRUE(freshAnswered().empty());  // not tried again after every answer
  EXPECT_EQ(fakes.systemLog->count("it cannot be claimed (Read-only file system)"), 3U);
  EXPECT_EQ(files().size(), 3U);

  fakes.fileSystem->setReadOnly(false);
  start();
  EXPECT_EQ(freshAnswered(), (std::vector<std::string>{"n=1", "n=2", "n=3"}));
  EXPECT_TRUE(files().empty());
  start();
  EXPECT_TRUE(freshAnswered().empty());
}

TEST_F(KeptFilesTest, AClaimGoesAgainAfterAFailedSendOrWhenItsProcessEnded) {
  const std::string ours = std::to_string(::getpid());
  const struct {
    std::string name;
    bool sent;
  } cases[] = {
      {"699999990.000000.qv.sending-999999999", true},                        // its process ended
      {"699999991.000000.qv.sending-" + std::to_string(::getppid()), false},  // still running
      {"699999992.000000.qv.sending-" + ours, true},  // an earlier process with this number
      {"699999993.000000.qv", true},
  };
  for (const auto& c : cases)
    putFile(c.name, c.name.substr(0, 9));
  std::vector<std::string> expected;
  for (const auto& c : cases)
    if (c.sent)
      expected.push_back(c.name.substr(0, 9));
  // The last one fails in transport: back under its plain name, sent by the next replay.
  const auto replayed = freshAnswered([](std::size_t i) { return i < 2; });
  EXPECT_EQ(replayed, expected);
  EXPECT_EQ(files(), (std::vector<std::string>{cases[1].name, "699999993.000000.qv"}));
  EXPECT_EQ(freshAnswered(), std::vector<std::string>{"699999993"});
  EXPECT_EQ(files(), std::vector<std::string>{cases[1].name});
}

}  // namespace
}  // namespace quorvel
