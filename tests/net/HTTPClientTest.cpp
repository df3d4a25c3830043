#include <gtest/gtest.h>

#include <quorvel/QuorvelTracker.h>

#include "cache/QuorvelRequestCache.h"
#include "common/QuorvelUtils.h"
#include "log/QuorvelProxyManager.h"
#include "net/QuorvelHTTPClient.h"
#include "support/TestPlatform.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

constexpr const char* kClientCacheDir = "/app/Library/Caches/QuorvelCache";
const Error kRefused{platform::kURLErrorDomain, -1004, "Could not connect to the server."};

class HTTPClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakes.logSwitches->setDebug(true);
    cache = std::make_shared<QuorvelRequestCache>(
        fakes.shared(), fakes.log(), [this](const QuorvelRequestCacheData& r) {
          client->sendRequestEventToServer(r, true, std::nullopt, false, nullptr);
        });
    client = QuorvelHTTPClient::create(fakes.shared(), QuorvelProxyManager::sharedManager(),
                                       fakes.log(), cache);
  }
  std::vector<std::string> files() {
    return fakes.fileSystem->contentsOfDirectory(kClientCacheDir)
        .value_or(std::vector<std::string>{});
  }
  void putFile(const std::string& name, const std::string& version, const std::string& url) {
    fakes.fileSystem->createDirectory(kClientCacheDir);
    const std::string content = "version=" + version + "\nurl=" + url + "\ndata=AQI=";
    fakes.fileSystem->writeFileAtomically(std::string(kClientCacheDir) + "/" + name,
                                          Bytes(content.begin(), content.end()));
  }
  QuorvelRequestCacheData fresh(
      const std::string& url = "https://t.example/api/v4.8/iosevent?app_id=1&buildnumber=4.8.0") {
    return QuorvelRequestCacheData(url, Bytes{9, 9}, "4.8.0");
  }

  test::TestPlatform fakes;
  std::shared_ptr<QuorvelRequestCache> cache;
  std::shared_ptr<QuorvelHTTPClient> client;
};

TEST_F(HTTPClientTest, RequestShapeAndLegacyEscaping) {
  client->sendRequestEventToServer(fresh("https://t.example/p?a=b c&d=\xc3\xa9|x%y"), false,
                                   std::nullopt, false, nullptr);
  const auto r = fakes.requests().at(0);
  EXPECT_EQ(fakes.requests().size(), 1U);
  EXPECT_EQ(r.url, "https://t.example/p?a=b%20c&d=%C3%A9%7Cx%25y");
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.headers, (platform::HeaderList{{"Content-Type", "application/octet-stream"}}));
  EXPECT_EQ(r.body, (Bytes{9, 9}));
  EXPECT_FALSE(r.timeout);
}

TEST_F(HTTPClientTest, FreshTransportFailureIsCachedAndNoCallback) {
  bool called = false;
  client->sendRequestEventToServer(fresh(), false, std::nullopt, false, [&] { called = true; });
  fakes.fail(0, kRefused);
  fakes.dispatcher->runUntilIdle();
  EXPECT_FALSE(called);
  ASSERT_EQ(files().size(), 1U);
  EXPECT_EQ(fakes.systemLog->count(
                "Quorvel Connection failed! Error - Could not connect to the server. "),
            1U);
}

TEST_F(HTTPClientTest, FreshAnswerReplaysTheCacheOneByOneWithTheSuffix) {
  putFile("699999990.000000.qv", "4.8.0", "https://t.example/a?buildnumber=4.8.0");
  putFile("699999991.000000.qv", "4.8.0", "https://t.example/b?buildnumber=4.8.0");
  bool called = false;
  client->sendRequestEventToServer(fresh(), false, std::nullopt, false, [&] { called = true; });
  fakes.respond(0, 403, "{}");
  fakes.dispatcher->runUntilIdle();
  EXPECT_TRUE(called);  // any HTTP answer counts as delivered
  fakes.dispatcher->advance(100ms);
  const auto started = fakes.requests();
  ASSERT_EQ(started.size(), 2U);
  const std::string& url = started[1].url;
  EXPECT_NE(url.find("https://t.example/a?buildnumber=4.8.0&timeincache="), std::string::npos);
  EXPECT_EQ(url.substr(url.size() - 21), "&isCachedRequest=true");
  // A replayed record answered 4xx is final: deleted, and the next record goes.
  fakes.respond(1, 404, "gone", "text/html");
  fakes.dispatcher->runUntilIdle();
  ASSERT_EQ(fakes.requests().size(), 3U);
  // A 5xx is no delivery: the record stays, under its own name, and the replay stops there.
  fakes.respond(2, 503, "busy", "text/html");
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(files(), std::vector<std::string>{"699999991.000000.qv"});
  EXPECT_EQ(fakes.requests().size(), 3U);
  // It goes again after the next answer that takes a report.
  client->sendRequestEventToServer(fresh(), false, std::nullopt, false, nullptr);
  fakes.respond(3, 200, "{}");
  fakes.dispatcher->advance(100ms);
  EXPECT_EQ(fakes.requests().size(), 5U);
}

TEST_F(HTTPClientTest, ReplayedTransportFailureKeepsOnlyCurrentVersionRecords) {
  putFile("699999990.000000.qv", "4.7.1", "https://t.example/old?x=1");
  putFile("699999991.000000.qv", "4.8.0", "https://t.example/current?x=1");
  client->sendRequestEventToServer(fresh(), false, std::nullopt, false, nullptr);
  fakes.respond(0, 200, "{}");
  fakes.dispatcher->advance(100ms);
  fakes.fail(1, kRefused);  // the 4.7.1 record: deleted after this try
  fakes.dispatcher->runUntilIdle();
  fakes.fail(2, kRefused);  // the 4.8.0 record: stays for a later launch
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(files(), std::vector<std::string>{"699999991.000000.qv"});
  EXPECT_EQ(fakes.requests().size(), 3U);
}

TEST_F(HTTPClientTest, MonitorValueSwitchesRemoteDebugging) {
  auto& proxy = QuorvelProxyManager::sharedManager();
  struct Case {
    std::string body;
    bool enabled;
  };
  const Case cases[] = {{R"({"monitor":1})", true},   {R"({"monitor":0})", false},
                        {R"({"monitor":1})", true},   {"{}", false},
                        {R"({"monitor":"1"})", true}, {"not json", false},
                        {R"({"monitor":1})", true},   {"[1,2]", false}};
  std::size_t index = 0;
  for (const auto& c : cases) {
    client->sendRequestEventToServer(fresh(), false, std::nullopt, false, nullptr);
    proxy.addEventWithString("line before the answer");
    fakes.respond(index++, 200, c.body);
    fakes.dispatcher->runUntilIdle();
    EXPECT_EQ(proxy.proxyEnabledFromServer(), c.enabled) << c.body;
    EXPECT_EQ(proxy.isRemoteDebugging(), c.enabled) << c.body;
    if (!c.enabled) {
      // The pre-launch lines are dropped and nothing more is collected. A body that is not
      // JSON drops first and stops after, so only the stop marker remains.
      proxy.addEventWithString("line after the answer");
      const auto events = proxy.events();
      EXPECT_EQ(events.size(), c.body == "not json" ? 1U : 0U) << c.body;
      for (const auto& e : events)
        EXPECT_NE(e.find("Turning OFF RD"), std::string::npos);
      if (events.empty()) {
        EXPECT_EQ(proxy.requestSize(), 0) << c.body;
      }
    }
  }
}

TEST_F(HTTPClientTest, LinkSettingsFromTrackingAnswers) {
  client->handleHoplineResponse(
      Json{{"hl_domain", "go.example"}, {"hl_ver", "2"}, {"hl_scheme", "   "}});
  EXPECT_EQ(fakes.preferences->durable()[keys::kHoplineDomain], "go.example");
  EXPECT_EQ(fakes.preferences->stringForKey(keys::kHoplineVersion), "2");
  EXPECT_FALSE(fakes.preferences->objectForKey(keys::kHoplineScheme));
  client->handleHoplineResponse(Json{{"hl_scheme", "myapp"}});
  EXPECT_EQ(fakes.preferences->stringForKey(keys::kHoplineScheme), "myapp");
  // Answers that repeat the settings, or carry none, write nothing.
  const int syncs = fakes.preferences->synchronizeCount();
  client->handleHoplineResponse(Json{{"hl_domain", "go.example"}, {"hl_scheme", "myapp"}});
  client->handleHoplineResponse(Json::array());
  EXPECT_EQ(fakes.preferences->synchronizeCount(), syncs);
}

TEST_F(HTTPClientTest, FireAndForgetPathFollowsTheSystemsCapabilities) {
  struct Case {
    std::string version;
    std::string path;
    std::optional<platform::SystemCapabilities> capabilities = std::nullopt;  // else a phone's
  };
  const Case cases[] = {{"8.4", "session"},
                        {"12", "session"},
                        {"9.3", "task"},
                        {"7.1", "dropped"},
                        // A desktop system's own version number means nothing here.
                        {"3.18", "session", platform::SystemCapabilities{}}};
  for (const auto& c : cases) {
    test::TestPlatform local;
    local.logSwitches->setDebug(true);
    local.logSwitches->setTrace(true);
    local.device->systemVersionValue = c.version;
    local.device->capabilitiesValue = c.capabilities;
    auto localCache = std::make_shared<QuorvelRequestCache>(local.shared(), local.log(), nullptr);
    auto http = QuorvelHTTPClient::create(local.shared(), QuorvelProxyManager::sharedManager(),
                                          local.log(), localCache);
    EXPECT_EQ(http->bgSession() != nullptr, c.path == "session") << c.version;
    http->sendRequestWithConfiguration("https://monitorsdk.example/remote-debug?app_id=1",
                                       "{\"data\":[]}");
    local.dispatcher->runUntilIdle();
    if (c.path == "session") {
      const auto uploads = local.requests(test::kBackgroundSession);
      ASSERT_EQ(uploads.size(), 1U);
      const auto& r = uploads[0];
      EXPECT_EQ(r.headers, (platform::HeaderList{{"Content-Type", "application/text"}}));
      EXPECT_EQ(std::string(r.body.begin(), r.body.end()), "{\"data\":[]}");
      local.fail(0, kRefused);
      local.dispatcher->runUntilIdle();
      EXPECT_EQ(local.systemLog->count("completed with error: Could not connect to the server."),
                1U);
    } else if (c.path == "task") {
      ASSERT_EQ(local.requests("shared").size(), 1U);
      EXPECT_EQ(local.application->begun.size(), 1U);
      EXPECT_TRUE(local.application->ended.empty());
      local.respond(0, 200, "");
      local.dispatcher->runUntilIdle();
      EXPECT_EQ(local.application->ended, local.application->begun);
    } else {
      EXPECT_EQ(local.systemLog->count("WARN: bgSession is nil"), 1U);
    }
  }
}

TEST_F(HTTPClientTest, ShortLinkRequestsAreSignedAndLeaveOutDataTheyCannotWrite) {
  fakes.clock->set(platform::TimePoint(std::chrono::milliseconds(1'510'000'000'400LL)));
  client->getHopline("https://hopline.example/shortlink-sdk/v1/abc?id=xyz", "DEVKEY", nullptr);
  const auto r = fakes.requests().at(0);
  EXPECT_EQ(r.method, "GET");
  EXPECT_EQ(r.headers,
            (platform::HeaderList{{"Content-Type", "application/json"},
                                  {"qv-timestamp", "1510000000"},
                                  {"authorization", QuorvelUtils::sha1("DEVKEY1510000000")}}));
  // The link generator's test walks the answers; here, data that cannot be written.
  client->createHopline("https://hopline.example/shortlink-sdk/v1/tmpl", 7, "K",
                        Json{{"bad", std::numeric_limits<double>::infinity()}},
                        [](const auto&, const auto&) {});
  const auto made = fakes.requests().at(1);
  EXPECT_EQ(made.method, "POST");
  EXPECT_EQ(std::string(made.body.begin(), made.body.end()), R"({"ttl":"7","data":{}})");
}

TEST_F(HTTPClientTest, ResolveAnswers) {
  struct Case {
    std::function<void(const test::TestPlatform&, std::size_t)> answer;
    std::optional<Json> result;
    std::optional<std::int64_t> errorCode;
  };
  const std::vector<Case> cases = {
      {[](auto& s, auto i) { s.respond(i, 200, R"({"pid":"x"})"); }, Json{{"pid", "x"}},
       std::nullopt},
      {[](auto& s, auto i) { s.respond(i, 200, R"({"pid":"x"})", "text/html"); }, std::nullopt,
       std::nullopt},
      {[](auto& s, auto i) { s.respond(i, 404, R"({"pid":"x"})"); }, std::nullopt, std::nullopt},
      {[](auto& s, auto i) { s.respond(i, 200, "{broken"); }, std::nullopt, 3840},
      {[](auto& s, auto i) { s.fail(i, kRefused); }, std::nullopt, -1004},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    int calls = 0;
    std::optional<Json> result;
    std::optional<Error> error;
    client->getHopline("https://hopline.example/x", "K", [&](const auto& r, const auto& e) {
      ++calls;
      result = r;
      error = e;
    });
    cases[i].answer(fakes, i);
    fakes.dispatcher->runUntilIdle();
    EXPECT_EQ(calls, 1) << i;
    EXPECT_EQ(result, cases[i].result) << i;
    EXPECT_EQ(error ? std::optional<std::int64_t>(error->code) : std::nullopt, cases[i].errorCode)
        << i;
  }
}

TEST_F(HTTPClientTest, RemoteDebuggingUploadGathersTheStaticBlockOnce) {
  auto tracker =
      std::make_unique<TrackerCore>(fakes.shared(), QuorvelProxyManager::sharedManager(), cache);
  tracker->setQuorvelDevKey(std::string("DEVKEY-0123"));
  tracker->setAppleAppID(std::string("123"));
  tracker->setHost(std::string("svc.example"));
  fakes.preferences->setInteger(keys::kCounter, 3);
  auto& proxy = QuorvelProxyManager::sharedManager();
  proxy.stopRemoteDebugging();  // whatever earlier tests in this process left
  proxy.clearData();
  proxy.startRemoteDebugging();
  proxy.addEventWithString("hello");
  tracker->sendRemoteDebuggingData();
  EXPECT_TRUE(proxy.events().empty());
  fakes.dispatcher->runUntilIdle();
  auto uploads = fakes.requests(test::kBackgroundSession);
  ASSERT_EQ(uploads.size(), 1U);
  EXPECT_EQ(
      uploads[0].url,
      "https://monitorsdk.svc.example/remote-debug?app_id=123&device_tracking_disabled=false");
  const auto& body = uploads[0].body;
  const Json document = Json::parse(body.begin(), body.end());
  const std::string uid = tracker->getQuorvelUID();
  const Json want = {{"brand", "Apple"},
                     {"platform", "iOS"},
                     {"model", "iPhone"},
                     {"platform_version", "12.1"},
                     {"devkey", "DEVKEY-0123"},
                     {"sdk_version", "version: 4.8.0 (build 597)"},
                     {"uid", uid},
                     {"originalQuorvelId", uid},
                     {"launch_counter", 3},
                     {"app_id", "123"},
                     {"app_version", "7"}};
  for (const auto& [key, value] : want.items())
    EXPECT_EQ(document[key], value) << key;
  // Started while not collecting, the start leaves no marker: only the line.
  ASSERT_EQ(document["data"].size(), 1U);
  EXPECT_NE(document["data"][0].get<std::string>().find("hello"), std::string::npos);
  EXPECT_TRUE(fakes.preferences->objectForKey("remote_debug_static_data"));

  // The second upload reuses the stored block and refreshes only the launch counter.
  fakes.preferences->setInteger(keys::kCounter, 4);
  tracker->setQuorvelDevKey(std::string("OTHER-KEY-99"));
  tracker->sendRemoteDebuggingData();
  fakes.dispatcher->runUntilIdle();
  uploads = fakes.requests(test::kBackgroundSession);
  const auto& body2 = uploads.at(1).body;
  const Json second = Json::parse(body2.begin(), body2.end());
  EXPECT_EQ(second["launch_counter"], 4);
  EXPECT_EQ(second["devkey"], "DEVKEY-0123");
  EXPECT_TRUE(second["data"].empty());
}

}  // namespace
}  // namespace quorvel
