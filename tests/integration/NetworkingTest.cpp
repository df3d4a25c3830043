// Tracking requests over real HTTPS on loopback: libcurl, the request cache as real files,
// the replay chain on real queues.
#include <sys/wait.h>
#include <unistd.h>

#include <future>

#include <gtest/gtest.h>

#include <quorvel/QuorvelTracker.h>

#include "cache/QuorvelRequestCache.h"
#include "common/QuorvelUtils.h"
#include "log/QuorvelProxyManager.h"
#include "net/QuorvelHTTPClient.h"
#include "platform/AtomicFile.h"
#include "platform/posix/PosixServices.h"
#include "support/Eventually.h"
#include "support/LoopbackListener.h"
#include "support/TempDir.h"
#include "support/TlsTestServer.h"
#include "tracker/TrackerCore.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

const std::vector<std::string> kHosts = {"t.localhost", "events.localhost", "hopline.localhost"};

using test::eventually;

class NetworkingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    certificates = test::makeTestCertificates(
        certDir.path(),
        {"t.localhost", "events.localhost", "hopline.localhost", "localhost", "127.0.0.1"});
    server = std::make_unique<test::TlsTestServer>(kHosts, 0, certificates);
  }

  void makeTracker(std::chrono::milliseconds timeout = 10s, std::size_t maxBytes = 1 << 20) {
    PosixPlatformOptions options;
    options.bundleIdentifier = "com.quorvel.nettest";
    options.dataDirectory = root / "data";
    options.keychainDirectory = root / "keychain";
    options.extraCAFile = certificates.caFile;
    options.requestTimeout = timeout;
    options.maxResponseBytes = maxBytes;
    platform = std::make_shared<const Platform>(makePosixPlatform(options));
    tracker = std::make_unique<TrackerCore>(platform, QuorvelProxyManager::sharedManager());
  }
  std::string cacheDir() const { return platform->fileSystem->cachesDirectory() + "/QuorvelCache"; }
  std::vector<std::string> cacheFiles() const {
    return platform->fileSystem->contentsOfDirectory(cacheDir())
        .value_or(std::vector<std::string>{});
  }
  std::string url(const std::string& path, int port = 0) const {
    return "https://t.localhost:" + std::to_string(port == 0 ? server->port() : port) + path;
  }
  // Sends a fresh tracking request and waits until it was answered (true) or not (false).
  bool send(const std::string& url) {
    auto answered = std::make_shared<std::promise<void>>();
    auto future = answered->get_future();
    tracker->httpClient()->sendRequestEventToServer(
        QuorvelRequestCacheData(url, Bytes{'e', 'n', 'c'}, "4.8.0"), false, std::nullopt, false,
        [answered] { answered->set_value(); });
    return future.wait_for(15s) == std::future_status::ready;
  }

  test::TempDir root;
  test::TempDir certDir;
  test::TestCertificates certificates;
  std::unique_ptr<test::TlsTestServer> server;
  std::shared_ptr<const Platform> platform;
  std::unique_ptr<TrackerCore> tracker;
};

TEST_F(NetworkingTest, OfflineRequestsAreCachedThenReplayedInOrderWhenTheServerIsBack) {
  const int port = server->port();
  server.reset();  // the service goes away: connections are refused
  makeTracker();
  for (int i = 0; i < 3; ++i) {
    tracker->httpClient()->sendRequestEventToServer(
        QuorvelRequestCacheData(
            url("/api/v4.8/iosevent?n=" + std::to_string(i) + "&buildnumber=4.8.0", port),
            Bytes{static_cast<std::uint8_t>(i)}, "4.8.0"),
        false, std::nullopt, false, nullptr);
    // One at a time, so that the files' names (their times) keep the order.
    ASSERT_TRUE(eventually([&] { return cacheFiles().size() == static_cast<std::size_t>(i + 1); }));
  }
  server = std::make_unique<test::TlsTestServer>(kHosts, port, certificates);
  ASSERT_TRUE(send(url("/api/v4.8/iosevent?n=fresh")));
  ASSERT_TRUE(server->waitForRequests(4));
  ASSERT_TRUE(eventually([&] { return cacheFiles().empty(); }));
  const auto received = server->received();
  ASSERT_EQ(received.size(), 4U);
  for (int i = 0; i < 3; ++i) {
    const auto& r = received[static_cast<std::size_t>(i) + 1];
    EXPECT_EQ(r.path, "/api/v4.8/iosevent");
    EXPECT_EQ(
        r.target.rfind(
            "/api/v4.8/iosevent?n=" + std::to_string(i) + "&buildnumber=4.8.0&timeincache=", 0),
        0U)
        << r.target;
    EXPECT_EQ(r.target.substr(r.target.size() - 21), "&isCachedRequest=true");
    EXPECT_EQ(r.body, std::string(1, static_cast<char>(i)));
    EXPECT_EQ(r.header("Content-Type"), "application/octet-stream");
  }
  // Nothing is sent twice.
  EXPECT_FALSE(server->waitForRequests(5, 300ms));
}

TEST_F(NetworkingTest, ReplayedAnswersDeleteAndReplayedFailuresKeepOnlyCurrentVersions) {
  makeTracker();
  platform->fileSystem->createDirectory(cacheDir());
  auto put = [&](const std::string& name, const std::string& version, const std::string& target) {
    const std::string content = "version=" + version + "\nurl=" + target + "\ndata=AQI=";
    platform->fileSystem->writeFileAtomically(cacheDir() + "/" + name,
                                              Bytes(content.begin(), content.end()));
  };
  put("700000001.000000.qv", "4.8.0", url("/answered-500?x=1"));
  put("700000002.000000.qv", "4.7.1", url("/refused?x=1", 1));
  put("700000003.000000.qv", "4.8.0", url("/refused?x=1", 1));
  // What a crash in the middle of a write leaves: never replayed, removed when the cache opens.
  put("700000004.000000.qv.tmp-Ab12Cd", "4.8.0", url("/partial?x=1"));
  server->onRequest([](const httplib::Request& req, httplib::Response& res) {
    res.status = req.path == "/answered-500" ? 500 : 200;
    res.set_content(R"({"monitor":0})", "application/json");
  });
  ASSERT_TRUE(send(url("/fresh?x=1")));
  ASSERT_TRUE(eventually([&] {
    return cacheFiles() == std::vector<std::string>{"700000003.000000.qv"};
  })) << cacheFiles().size();
  for (const auto& r : server->received())
    EXPECT_NE(r.path, "/partial");
}

TEST_F(NetworkingTest, TimeoutsAndBrokenAnswersAreTransportFailures) {
  makeTracker(400ms, 64 * 1024);
  server->onRequest([](const httplib::Request& req, httplib::Response& res) {
    if (req.path == "/slow") {
      std::this_thread::sleep_for(1200ms);  // the server is slow; the client gives up first
      res.set_content("{}", "application/json");
    } else if (req.path == "/cut") {
      res.set_content_provider(100'000, "application/json",
                               [](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                 if (offset > 0)
                                   return false;  // close the connection mid-body
                                 sink.write("{\"monitor\":", 11);
                                 return true;
                               });
    } else {
      res.set_content("{}", "application/json");
    }
  });
  for (const char* path : {"/slow?a=1", "/cut?a=1"}) {
    const auto before = cacheFiles().size();
    tracker->httpClient()->sendRequestEventToServer(
        QuorvelRequestCacheData(url(path), Bytes{1}, "4.8.0"), false, std::nullopt, false, nullptr);
    EXPECT_TRUE(eventually([&] { return cacheFiles().size() == before + 1; })) << path;
  }
}

TEST_F(NetworkingTest, HostileAnswersNeitherCrashNorLeaveTlsNorReplay) {
  makeTracker(10s, 1 << 20);
  test::LoopbackListener plain;
  ASSERT_TRUE(plain.bound());
  const std::string deep = std::string(300'000, '[') + std::string(300'000, ']');
  server->onRequest([&](const httplib::Request& req, httplib::Response& res) {
    if (req.path == "/deep") {
      res.set_content(deep, "application/json");
    } else if (req.path == "/huge") {
      res.set_content(std::string(2'000'000, ' '), "application/json");
    } else if (req.path == "/redirect") {
      res.status = 307;
      res.set_header("Location", "http://127.0.0.1:" + std::to_string(plain.port()) + "/x?a=1");
    }
  });
  // Answers that reached the client, however unreadable, are delivered: never cached.
  for (const char* path : {"/deep?a=1", "/huge?a=1"}) {
    ASSERT_TRUE(send(url(path))) << path;
    EXPECT_TRUE(cacheFiles().empty()) << path;
  }
  // A redirect out of TLS is not followed: the request is kept for a later try instead.
  tracker->httpClient()->sendRequestEventToServer(
      QuorvelRequestCacheData(url("/redirect?a=1"), Bytes{1}, "4.8.0"), false, std::nullopt, false,
      nullptr);
  EXPECT_TRUE(eventually([&] { return cacheFiles().size() == 1; }));
  EXPECT_FALSE(plain.connectionArrived());
}

TEST_F(NetworkingTest, MonitorOneStartsRemoteDebugging) {
  makeTracker();
  server->onRequest([](const httplib::Request&, httplib::Response& res) {
    res.set_content(R"({"monitor":1,"hl_domain":"go.example","hl_ver":"3","hl_scheme":"myapp"})",
                    "application/json");
  });
  ASSERT_TRUE(send(url("/api?x=1")));
  EXPECT_TRUE(QuorvelProxyManager::sharedManager().proxyEnabledFromServer());
  EXPECT_EQ(platform->preferences->stringForKey("hoplineScheme"), "myapp");
}

// A file system that dies between writing the temporary file and renaming it.
class DyingFileSystem final : public platform::FileSystem {
 public:
  explicit DyingFileSystem(std::shared_ptr<platform::FileSystem> inner)
      : inner_(std::move(inner)) {}
  std::string libraryDirectory() const override { return inner_->libraryDirectory(); }
  std::string cachesDirectory() const override { return inner_->cachesDirectory(); }
  std::string temporaryDirectory() const override { return inner_->temporaryDirectory(); }
  std::optional<platform::TimePoint> creationDate(const std::string& p) const override {
    return inner_->creationDate(p);
  }
  std::optional<platform::TimePoint> modificationDate(const std::string& p) const override {
    return inner_->modificationDate(p);
  }
  bool fileExists(const std::string& p) const override { return inner_->fileExists(p); }
  bool createDirectory(const std::string& p) override { return inner_->createDirectory(p); }
  std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& p) const override {
    return inner_->contentsOfDirectory(p);
  }
  std::optional<Bytes> readFile(const std::string& p) const override { return inner_->readFile(p); }
  bool writeFileAtomically(const std::string& p, const Bytes& c, std::string* reason) override {
    platform::AtomicWriteOptions options;
    options.beforeRename = [] { _exit(9); };
    return platform::writeFileAtomically(p, c, options, reason) ==
           platform::AtomicWriteResult::written;
  }
  bool removeFile(const std::string& p, std::string* reason) override {
    return inner_->removeFile(p, reason);
  }
  using FileSystem::removeFile;
  using FileSystem::writeFileAtomically;

 private:
  std::shared_ptr<platform::FileSystem> inner_;
};

TEST(RequestCacheDurability, DeathBeforeTheRenameLeavesNoPartialRecord) {
  test::TempDir root;
  auto fs = std::make_shared<platform::PosixFileSystem>(root / "data");
  const std::string dir = fs->cachesDirectory() + "/QuorvelCache";
  fs->createDirectory(dir);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Platform p = makePosixPlatform(PosixPlatformOptions{});
    p.fileSystem = std::make_shared<DyingFileSystem>(fs);
    auto cache =
        std::make_shared<QuorvelRequestCache>(std::make_shared<const Platform>(p), nullptr);
    cache->cacheRequest(
        QuorvelRequestCacheData("https://t.example/a?x=1", Bytes(4096, 7), "4.8.0"));
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 9);
  // No file carries a request name; whatever the reader finds is whole.
  for (const auto& name : fs->contentsOfDirectory(dir).value_or(std::vector<std::string>{})) {
    EXPECT_EQ(name.find(".qv"), name.find(".qv.tmp-")) << name;
  }
  Platform p = makePosixPlatform(PosixPlatformOptions{});
  p.fileSystem = fs;
  QuorvelRequestCache reader(std::make_shared<const Platform>(p), nullptr);
  for (const auto& record : reader.getCachedRequests())
    EXPECT_EQ(record.postData(), Bytes(4096, 7));
}

TEST_F(NetworkingTest, RequestsCompletingWhileTheHostKeepsCallingTheApi) {
  makeTracker();
  std::atomic<bool> stop{false};
  std::vector<std::thread> host;
  for (int t = 0; t < 2; ++t) {
    host.emplace_back([&, t] {
      for (int i = 0; i < 2000 && !stop; ++i) {
        tracker->setCustomerUserID("user-" + std::to_string(i));
        tracker->setAdditionalData(Json{{"i", i}, {"t", t}});
        tracker->setHost(i % 2 == 0 ? std::optional<std::string>("localhost") : std::nullopt);
        (void)tracker->customData();
        (void)tracker->getQuorvelUID();
      }
    });
  }
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(send(url("/api?i=" + std::to_string(i))));
  stop = true;
  for (auto& th : host)
    th.join();
  EXPECT_TRUE(server->waitForRequests(20));
}

}  // namespace
}  // namespace quorvel
