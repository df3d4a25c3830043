#include <unistd.h>

#include <gtest/gtest.h>

#include "cache/QuorvelRequestCache.h"
#include "log/QuorvelProxyManager.h"
#include "support/TestPlatform.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

constexpr const char* kCacheDir = "/app/Library/Caches/QuorvelCache";

std::string text(const std::optional<Bytes>& b) {
  return b ? std::string(b->begin(), b->end()) : std::string();
}
Bytes bytes(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

class RequestCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QuorvelProxyManager::sharedManager().stopRemoteDebugging();
    fakes.logSwitches->setDebug(true);
    // 2001-01-01 + 700,000,000.25 s.
    fakes.clock->set(platform::TimePoint(
        std::chrono::microseconds(978'307'200'000'000LL + 700'000'000'250'000LL)));
    cache = std::make_shared<QuorvelRequestCache>(
        fakes.shared(), fakes.log(),
        [this](const QuorvelRequestCacheData& r) { sent.push_back(r); });
  }
  void putFile(const std::string& name, const std::string& content) {
    fakes.fileSystem->createDirectory(kCacheDir);
    fakes.fileSystem->writeFileAtomically(std::string(kCacheDir) + "/" + name, bytes(content));
  }
  std::vector<std::string> files() {
    return fakes.fileSystem->contentsOfDirectory(kCacheDir).value_or(std::vector<std::string>{});
  }

  test::TestPlatform fakes;
  std::shared_ptr<QuorvelRequestCache> cache;
  std::vector<QuorvelRequestCacheData> sent;
};

TEST_F(RequestCacheTest, FileNameAndContentAreByteExact) {
  cache->cacheRequest(
      QuorvelRequestCacheData("https://t.example/api?a=1", Bytes{0, 1, 2, 0xff}, "4.8.0"));
  ASSERT_EQ(files(), std::vector<std::string>{"700000000.250000.qv"});
  EXPECT_EQ(text(fakes.fileSystem->readFile(std::string(kCacheDir) + "/700000000.250000.qv")),
            "version=4.8.0\nurl=https://t.example/api?a=1\ndata=AAEC/w==");
  // Same instant again: the name moves on by a microsecond instead of overwriting.
  cache->cacheRequest(QuorvelRequestCacheData("u?b", Bytes{1}, "4.8.0"));
  EXPECT_EQ(files(), (std::vector<std::string>{"700000000.250000.qv", "700000000.250001.qv"}));
  QuorvelRequestCacheData unset;
  EXPECT_EQ(QuorvelRequestCache::fileContent(unset), "version=(null)\nurl=(null)\ndata=(null)");
}

TEST_F(RequestCacheTest, FortyOneEntriesAtMostCountingEveryEntry) {
  for (int i = 0; i < 39; ++i)
    putFile("junk-" + std::to_string(i), "not a request");
  putFile("notes.txt", "");
  // A write that never finished is removed; one a minute old is not yet: it may be another
  // process's, under way.
  const std::string stray = "700000000.000000.qv.tmp-Ab12Cd";
  const std::string underWay = "700000000.000000.qv.tmp-Ef34Gh";
  putFile(stray, "");
  putFile(underWay, "");
  const auto now = fakes.clock->now();
  fakes.fileSystem->setDates(std::string(kCacheDir) + "/" + stray, now - 61s, now - 61s);
  fakes.fileSystem->setDates(std::string(kCacheDir) + "/" + underWay, now - 59s, now - 59s);
  cache->cacheRequest(QuorvelRequestCacheData("u?1", Bytes{1}, "4.8.0"));
  const auto names = files();
  EXPECT_EQ(names.size(), 42U);  // the 41 entries and the write under way
  EXPECT_EQ(std::count(names.begin(), names.end(), stray), 0);
  EXPECT_EQ(std::count(names.begin(), names.end(), underWay), 1);
  cache->cacheRequest(QuorvelRequestCacheData("u?2", Bytes{2}, "4.8.0"));
  EXPECT_EQ(files().size(), 42U);
  EXPECT_EQ(fakes.systemLog->count("Cache reached limit - not caching request...."), 1U);
  cache->cacheRequest(std::nullopt);
  EXPECT_EQ(files().size(), 42U);
}

TEST_F(RequestCacheTest, ReaderIsTolerantAndRemovesEntriesThatHoldNoRequest) {
  struct Case {
    std::string name;
    std::string content;
    std::optional<std::string> url;  // nullopt: skipped
    std::optional<std::string> version;
  };
  const std::vector<Case> cases = {
      {"699999987.750000.qv", "version=4.8.0\nurl=https://x/a?q=1\ndata=AQI=",
       "https://x/a?q=1&timeincache=12.500000", "4.8.0"},
      {"699999990.000000.qv", "version=4.7.1\r\nurl= \thttps://x/b?q=1 a\t \r\ndata=AQI=\r\n",
       "https://x/b?q=1 a&timeincache=10.250000", "4.7.1"},
      {"699999991.000000.qv",
       "url=https://old?x\nurl=https://new?x\ndata=AQI=\xe2\x80\xa8version=9",
       "https://new?x&timeincache=9.250000", "9"},
      {"699999992.000000.qv", "version=4.8.0\ndata=AQI=", std::nullopt, std::nullopt},  // no url
      {"699999993.000000.qv", "version=4.8.0\nurl=https://x?y\ndata=AQ I=", std::nullopt,
       std::nullopt},                                                          // not Base64
      {"699999994.000000.qv", "url=https://x?y", std::nullopt, std::nullopt},  // no data
      {"garbage", "\xff\xfe\x00\x01", std::nullopt, std::nullopt},
      {"nonumber.qv", "url=https://z?w\ndata=", "https://z?w&timeincache=700000000.250000",
       std::nullopt},
  };
  for (const auto& c : cases)
    putFile(c.name, c.content);
  const auto records = cache->getCachedRequests();
  std::size_t kept = 0;
  for (const auto& c : cases) {
    const auto it = std::find_if(records.begin(), records.end(),
                                 [&](const auto& r) { return r.cacheKey() == c.name; });
    EXPECT_EQ(it != records.end(), c.url.has_value()) << c.name;
    if (it == records.end())
      continue;
    ++kept;
    EXPECT_EQ(it->requestURL(), c.url) << c.name;
    EXPECT_EQ(it->sdkVersion(), c.version) << c.name;
  }
  EXPECT_EQ(records.size(), kept);
  // The four that hold no request go, counted.
  EXPECT_EQ(files().size(), cases.size() - 4);
  EXPECT_EQ(cache->unreadableRemoved(), 4U);
}

TEST_F(RequestCacheTest, StrictBase64ForPostData) {
  const std::pair<std::string, std::optional<Bytes>> cases[] = {
      {"", Bytes{}},          {"AQI=", Bytes{1, 2}},    {"AQID", Bytes{1, 2, 3}},
      {"AQ==", Bytes{1}},     {"AQI", std::nullopt},    {"AQ I=", std::nullopt},
      {"A=QI", std::nullopt}, {"AQ\n==", std::nullopt}, {"A===", std::nullopt},
      {"****", std::nullopt}};
  for (const auto& [in, want] : cases) {
    QuorvelRequestCacheData r;
    r.stringToPostData(in);
    EXPECT_EQ(r.postData(), want) << in;
  }
}

TEST_F(RequestCacheTest, ReplayStartsAfterATenthOfASecondOnTheMainQueueOneAtATime) {
  for (const char* name : {"699999990.000000.qv", "699999991.000000.qv", "699999992.000000.qv"}) {
    putFile(name, std::string("version=4.8.0\nurl=https://x?n=") + name + "\ndata=AQI=");
  }
  cache->processCache();
  fakes.dispatcher->advance(99ms);
  EXPECT_TRUE(sent.empty());
  fakes.dispatcher->advance(1ms);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(fakes.dispatcher->ranOn().back(), "main");
  // Claimed before it goes: its file carries this process's claim until the answer.
  const std::string claim = ".sending-" + std::to_string(::getpid());
  EXPECT_EQ(sent[0].cacheKey(), "699999990.000000.qv" + claim);
  // A batch in progress is not loaded again.
  cache->processCache();
  fakes.dispatcher->advance(1s);
  EXPECT_EQ(sent.size(), 1U);
  // Each answer moves the chain on by one record.
  cache->sendNextCachedEvents();
  cache->sendNextCachedEvents();
  ASSERT_EQ(sent.size(), 3U);
  EXPECT_EQ(sent[2].cacheKey(), "699999992.000000.qv" + claim);
  cache->sendNextCachedEvents();  // drained
  EXPECT_EQ(cache->cachedRequests(), std::vector<QuorvelRequestCacheData>{});
  EXPECT_EQ(sent.size(), 3U);
}

// A listing that found nothing is not repeated on every answer, but a request kept after it
// is still found by the next one.
TEST_F(RequestCacheTest, RequestKeptAfterAnEmptyListingIsReplayed) {
  cache->processCache();
  cache->processCache();
  fakes.dispatcher->advance(1s);
  EXPECT_TRUE(sent.empty());
  ASSERT_TRUE(cache->cacheRequest(QuorvelRequestCacheData("u?kept", Bytes{1}, "4.8.0")));
  cache->processCache();
  fakes.dispatcher->advance(100ms);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].requestURL().value_or("").rfind("u?kept&timeincache=", 0), 0U);
}

TEST_F(RequestCacheTest, DeleteAndWriteFailuresAreLogged) {
  QuorvelRequestCacheData r;
  r.setCacheKey("missing.qv");
  cache->deleteRequest(r);
  EXPECT_EQ(fakes.systemLog->count(
                "Error deleting file at /app/Library/Caches/QuorvelCache/missing.qv\nNo such file"),
            1U);
  fakes.fileSystem->setFailWrites(true);
  cache->cacheRequest(QuorvelRequestCacheData("u?1", Bytes{1}, "4.8.0"));
  EXPECT_EQ(
      fakes.systemLog->count("Error writing file at "
                             "/app/Library/Caches/QuorvelCache/700000000.250000.qv\nNo space left"),
      1U);
}

TEST_F(RequestCacheTest, SenderThatThrowsIsLoggedAndTheRecordLeavesTheBatch) {
  auto throwing = std::make_shared<QuorvelRequestCache>(
      fakes.shared(), fakes.log(),
      [](const QuorvelRequestCacheData&) { throw std::runtime_error("no tracker"); });
  putFile("699999990.000000.qv", "version=4.8.0\nurl=https://x?a\ndata=AQI=");
  throwing->processCache();
  fakes.dispatcher->advance(100ms);
  EXPECT_EQ(fakes.systemLog->count("failed to start connection https://x?a&timeincache="), 1U);
  EXPECT_EQ(throwing->cachedRequests()->size(), 0U);
  EXPECT_EQ(files().size(), 1U);
}

}  // namespace
}  // namespace quorvel
