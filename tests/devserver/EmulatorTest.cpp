// The emulator's request handling, without sockets: what it answers to good and bad input,
// and that every request is recorded, whatever it was.
#include <gtest/gtest.h>

#include <quorvel/Platform.h>

#include "Emulator.h"
#include "PayloadCipher.h"
#include "common/QuorvelAES128Crypto.h"
#include "log/Log.h"

namespace quorvel::devserver {
namespace {

constexpr const char* kEmulatorApp = "123456789";
constexpr const char* kEmulatorKey = "EMULATOR-KEY";

class EmulatorTest : public ::testing::Test {
 protected:
  EmulatorTest()
      : emulator(
            config(), store, faults, [this](const std::string& l) { log.push_back(l); },
            [] { return 1795000000.5; }) {}

  static EmulatorConfig config() {
    EmulatorConfig c;
    c.port = 8443;
    c.apps = {{kEmulatorApp, kEmulatorKey}};
    c.conversionData = Json::parse(R"({
      "123456789/DEVICE-B": {"status": "paid", "source": "email"},
      "123456789/DEVICE-C": {"http_status": 503},
      "*": {"status": "unpaid"}})");
    return c;
  }

  static std::string seal(const std::string& clear, const std::string& key = kEmulatorKey) {
    const QuorvelAES128Crypto crypto{std::optional<std::string>(key), makePosixPlatform({}).random,
                                     Log::silent()};
    const auto sealed = crypto.encrypt(Bytes(clear.begin(), clear.end()));
    return std::string(sealed->begin(), sealed->end());
  }

  ServiceResponse send(std::string method, std::string host, std::string path,
                       std::string query = "", std::string body = "",
                       std::multimap<std::string, std::string> headers = {}) {
    ServiceRequest r{std::move(method), std::move(host),    std::move(path),
                     std::move(query),  std::move(headers), std::move(body)};
    return emulator.handle(r);
  }

  ServiceResponse tracking(const std::string& body, const std::string& app = kEmulatorApp,
                           const std::string& host = "t.localhost:8443") {
    return send("POST", host, "/api/v4.8/iosevent", "app_id=" + app + "&buildnumber=4.8.0", body);
  }

  RequestStore store{":memory:"};
  Faults faults;
  std::vector<std::string> log;
  Emulator emulator;
};

TEST_F(EmulatorTest, ServiceHostsAreRecognisedWithOrWithoutPort) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"t.localhost:8443", "t"},
      {"sdk-services.localhost", "sdk-services"},
      {"quorvel.link.localhost:8443", "quorvel.link"},
      {"localhost:8443", ""},
      {"x.t.localhost:8443", ""},
      {"t.example.com", ""},
      {"", ""},
  };
  for (const auto& [host, service] : cases)
    EXPECT_EQ(emulator.serviceOf(host), service) << host;
  EXPECT_EQ(emulator.serviceDomain(), "localhost:8443");
}

TEST_F(EmulatorTest, ATrackingPayloadIsDecryptedStoredAndAnsweredWithTheLinkSettings) {
  const auto r = tracking(seal(R"({"event":"Launched","uid":"U1"})"));
  ASSERT_EQ(r.status, 200) << r.body;
  const Json answer = Json::parse(r.body);
  EXPECT_EQ(answer["monitor"], 0);
  EXPECT_EQ(answer["hl_domain"], "quorvel.link.localhost:8443");
  EXPECT_EQ(answer["hl_scheme"], "qv123456789://");
  const auto stored = store.all();
  ASSERT_EQ(stored.size(), 1U);
  EXPECT_EQ(stored[0].service, "t");
  EXPECT_EQ(stored[0].status, 200);
  EXPECT_EQ(stored[0].time, 1795000000.5);
  ASSERT_TRUE(stored[0].decrypted);
  EXPECT_EQ((*stored[0].decrypted)["uid"], "U1");

  emulator.setMonitor(1);
  EXPECT_EQ(Json::parse(tracking(seal("{}")).body)["monitor"], 1);
}

TEST_F(EmulatorTest, BadTrackingRequestsAreRecordedAndRefused) {
  const struct {
    const char* what;
    std::string method;
    std::string path;
    std::string app;
    std::string body;
    int status;
  } cases[] = {
      {"wrong method", "GET", "/api/v4.8/iosevent", kEmulatorApp, "", 405},
      {"wrong path", "POST", "/api/v4.8/../secret", kEmulatorApp, seal("{}"), 404},
      {"unknown app", "POST", "/api/v4.8/iosevent", "999", seal("{}"), 403},
      {"garbage body", "POST", "/api/v4.8/iosevent", kEmulatorApp, std::string(100, '\x01'), 400},
      {"empty body", "POST", "/api/v4.8/iosevent", kEmulatorApp, "", 400},
      {"another app's key", "POST", "/api/v4.8/iosevent", kEmulatorApp, seal("{}", "OTHER"), 400},
      {"clear text is not JSON", "POST", "/api/v4.8/iosevent", kEmulatorApp, seal("not json"), 400},
  };
  for (const auto& c : cases) {
    const auto r = send(c.method, "events.localhost:8443", c.path, "app_id=" + c.app, c.body);
    EXPECT_EQ(r.status, c.status) << c.what;
    EXPECT_TRUE(Json::parse(r.body).contains("error")) << c.what;
  }
  const auto stored = store.all();
  ASSERT_EQ(stored.size(), std::size(cases));
  EXPECT_EQ(stored.back().decrypted, Json("not json"));
  EXPECT_EQ(log.size(), std::size(cases));
}

TEST_F(EmulatorTest, ConversionDataIsFreshOnceThenCachedPerDevice) {
  const auto ask = [&](const std::string& device, const std::string& key = kEmulatorKey) {
    return send("GET", "sdk.localhost:8443", std::string("/install_data/v3/id") + kEmulatorApp,
                "devkey=" + key + "&device_id=" + device);
  };
  Json first = Json::parse(ask("DEVICE-A").body);
  EXPECT_EQ(first["status"], "unpaid");
  EXPECT_EQ(first["iscache"], false);
  EXPECT_EQ(first["first_open"], true);
  EXPECT_EQ(Json::parse(ask("DEVICE-A").body)["iscache"], true);

  const Json configured = Json::parse(ask("DEVICE-B").body);
  EXPECT_EQ(configured["source"], "email");
  EXPECT_EQ(configured["iscache"], false);

  EXPECT_EQ(ask("DEVICE-C").status, 503);
  EXPECT_EQ(ask("DEVICE-A", "WRONG").status, 403);
  EXPECT_EQ(ask("").status, 400);
  EXPECT_EQ(send("GET", "sdk.localhost:8443", "/install_data/v3/id42", "devkey=x").status, 404);
}

TEST_F(EmulatorTest, ShortLinksNeedTheSignatureOfAKnownAppAndResolveToTheirData) {
  const std::string timestamp = "1510000000";
  using Headers = std::multimap<std::string, std::string>;
  const Headers signedHeaders = {{"qv-timestamp", timestamp},
                                 {"authorization", sha1Hex(std::string(kEmulatorKey) + timestamp)}};
  const auto link = [&](const std::string& method, const std::string& query,
                        const std::string& body, const Headers& headers) {
    return send(method, "hopline.localhost:8443", "/shortlink-sdk/v1/inv1", query, body, headers);
  };

  const auto made =
      link("POST", "", R"({"ttl":"-1","data":{"pid":"qv_app_invites","c":"x"}})", signedHeaders);
  ASSERT_EQ(made.status, 200) << made.body;
  const std::string prefix = "https://quorvel.link.localhost:8443/inv1/";
  ASSERT_EQ(made.body.rfind(prefix, 0), 0U) << made.body;
  const std::string id = made.body.substr(prefix.size());

  const auto resolved = link("GET", "id=" + id, "", signedHeaders);
  ASSERT_EQ(resolved.status, 200);
  EXPECT_EQ(Json::parse(resolved.body)["c"], "x");

  const Headers badSignature = {{"qv-timestamp", timestamp},
                                {"authorization", sha1Hex(std::string("OTHER") + timestamp)}};
  EXPECT_EQ(link("GET", "id=" + id, "", badSignature).status, 401);
  EXPECT_EQ(link("GET", "id=" + id, "", {}).status, 401);
  EXPECT_EQ(link("GET", "id=nothing", "", signedHeaders).status, 404);
  EXPECT_EQ(link("POST", "", "[1,2]", signedHeaders).status, 400);
}

TEST_F(EmulatorTest, ReceiptsAreValidOnlyWhenWellFormed) {
  const auto validate = [&](const std::string& body, const std::string& key = kEmulatorKey,
                            const std::string& transaction = "tx-9") {
    return send("POST", "sdk-services.localhost:8443", "/validate-ios-receipt-server",
                std::string("app_id=") + kEmulatorApp + "&dev_key=" + key +
                    "&sandbox=true&tran_id=" + transaction,
                body);
  };
  const Json valid = Json::parse(validate(R"({"receipt-data":"c3RvcmU="})").body);
  EXPECT_EQ(valid["transaction_id"], "tx-9");
  EXPECT_EQ(valid["environment"], "Sandbox");
  for (const std::string bad :
       {R"({"receipt-data":"not base64!"})", R"({"other":1})", "{", R"({"receipt-data":""})"}) {
    const auto r = validate(bad);
    EXPECT_EQ(r.status, 200) << bad;
    EXPECT_FALSE(Json::parse(r.body).contains("transaction_id")) << bad;
    EXPECT_TRUE(Json::parse(r.body).contains("error")) << bad;
  }
  EXPECT_FALSE(Json::parse(validate(R"({"receipt-data":"c3RvcmU="})", kEmulatorKey, "").body)
                   .contains("transaction_id"));
  EXPECT_EQ(validate(R"({"receipt-data":"c3RvcmU="})", "WRONG").status, 403);
}

TEST_F(EmulatorTest, PlainJsonServicesCheckTheAppAndTheBody) {
  const auto post = [&](const std::string& host, const std::string& path, const std::string& body,
                        const std::string& app = kEmulatorApp) {
    return send("POST", host, path, "app_id=" + app, body).status;
  };
  EXPECT_EQ(post("stats.localhost:8443", "/stats", R"({"devkey":"EMULATOR-KEY"})"), 200);
  EXPECT_EQ(post("stats.localhost:8443", "/stats", "not json"), 400);
  EXPECT_EQ(post("register.localhost:8443", "/api/v4.8/iosevent", R"({"devkey":"WRONG"})"), 403);
  EXPECT_EQ(post("monitorsdk.localhost:8443", "/remote-debug", R"({"data":[]})", "77"), 403);
  EXPECT_EQ(send("GET", "stats.localhost:8443", "/stats", "app_id=123456789").status, 405);
  EXPECT_EQ(send("GET", "nowhere.example:1", "/x").status, 404);
}

TEST_F(EmulatorTest, AFailingServiceAnswersItsStatusAndOthersAreUntouched) {
  faults.failService("t", 503);
  EXPECT_EQ(tracking(seal("{}")).status, 503);
  EXPECT_EQ(tracking(seal("{}")).retryAfterSeconds, std::nullopt);
  faults.failService("t", 429, 7);
  const auto busy = tracking(seal("{}"));
  EXPECT_EQ(busy.status, 429);
  EXPECT_EQ(busy.retryAfterSeconds, 7);
  EXPECT_EQ(tracking(seal("{}"), kEmulatorApp, "events.localhost:8443").status, 200);
  faults.failService(Faults::kEveryService, 500);
  EXPECT_EQ(send("GET", "impressions.localhost:8443", "/id1").status, 500);
  faults.clear();
  EXPECT_EQ(tracking(seal("{}")).status, 200);
}

TEST(FaultsTest, AnOfflinePeriodEndsByItselfAndDelaysAreCapped) {
  Faults faults;
  const auto now = Faults::Clock::now();
  EXPECT_TRUE(faults.online(now));
  faults.goOffline(std::chrono::seconds(10));
  EXPECT_FALSE(faults.online(Faults::Clock::now()));
  EXPECT_TRUE(faults.online(Faults::Clock::now() + std::chrono::seconds(11)));
  faults.goOffline(std::nullopt);
  EXPECT_FALSE(faults.online(Faults::Clock::now() + std::chrono::hours(24)));
  faults.goOnline();
  EXPECT_TRUE(faults.online(now));

  faults.delayService("sdk", std::chrono::hours(1));
  EXPECT_EQ(faults.delayFor("sdk"), Faults::kMaxDelay);
  EXPECT_EQ(faults.delayFor("t"), std::chrono::milliseconds(0));
}

TEST(QueryTest, DecodingLeavesBrokenEscapesAlone) {
  const auto pairs = parseQuery("a=%41%42&b=%zz&c=%4&&d&e=x%20y=z");
  const std::vector<std::pair<std::string, std::string>> want = {
      {"a", "AB"}, {"b", "%zz"}, {"c", "%4"}, {"d", ""}, {"e", "x y=z"}};
  EXPECT_EQ(pairs, want);
  EXPECT_EQ(percentDecode("%"), "%");
  EXPECT_EQ(percentDecode("100%25"), "100%");
}

}  // namespace
}  // namespace quorvel::devserver
