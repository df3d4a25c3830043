// The demo host and the emulator as separate processes, as a developer runs them: what the
// library sent arrives decrypted, key by key, and what failed in transport while the
// service was away arrives once it is back.
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include <quorvel/Json.h>

#include "support/Eventually.h"
#include "support/LoopbackListener.h"
#include "support/Subprocess.h"
#include "support/TempDir.h"
#include "support/WebDriver.h"
#include "util/Base64.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char* kDemoApp = "123456789";
constexpr const char* kDemoKey = "E2E-DEV-KEY";

class DemoAgainstDevserver : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(dir / "scratch");
    std::ofstream(dir / "receipt") << "store receipt";
    server = std::make_unique<test::BackgroundProcess>(
        std::vector<std::string>{QUORVEL_DEVSERVER_BIN, "--port", "0", "--data-dir", serverDir(),
                                 "--app", std::string(kDemoApp) + "=" + kDemoKey, "--monitor", "1"},
        dir / "server.out", dir / "server.err");
    ASSERT_TRUE(test::eventually([&] { return fs::exists(serverDir() + "/server.json"); }, 30s))
        << "the emulator did not start";
    std::ifstream in(serverDir() + "/server.json");
    state = Json::parse(in);
  }

  std::string serverDir() const { return dir / "server"; }
  std::string cacheDir() const { return dir / "app/Library/Caches/QuorvelCache"; }
  std::size_t cachedFiles() const {
    return fs::exists(cacheDir())
               ? static_cast<std::size_t>(std::distance(fs::directory_iterator(cacheDir()), {}))
               : 0;
  }

  test::ProcessResult demo(std::vector<std::string> steps) {
    auto result = test::runProcess(demoArgv(std::move(steps)), dir / "scratch", 90s);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result;
  }

  std::vector<std::string> demoArgv(std::vector<std::string> steps) const {
    std::vector<std::string> argv = {QUORVEL_DEMO_BIN,
                                     "--host",
                                     state["service_domain"].get<std::string>(),
                                     "--ca-file",
                                     state["ca_file"].get<std::string>(),
                                     "--dev-key",
                                     kDemoKey,
                                     "--app-id",
                                     kDemoApp,
                                     "--data-dir",
                                     dir / "app",
                                     "--keychain-dir",
                                     dir / "keychain",
                                     "--receipt",
                                     dir / "receipt",
                                     "--invite-template",
                                     "inv1",
                                     "--customer-id",
                                     "e2e-user"};
    argv.insert(argv.end(), steps.begin(), steps.end());
    return argv;
  }

  // A script of `count` steps "event NAME i" (i from 0), for a burst.
  std::string burstScript(const std::string& name, int count) const {
    const std::string path = dir / (name + ".steps");
    std::ofstream out(path);
    for (int i = 0; i < count; ++i)
      out << "event " << name << " " << i << "\n";
    return path;
  }

  void fault(const std::string& action, std::vector<std::string> arguments = {}) {
    std::vector<std::string> argv = {QUORVEL_DEVSERVER_BIN, "fault", "--data-dir", serverDir(),
                                     action};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const auto r = test::runProcess(argv, dir / "scratch", 20s);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    if (action != "online" && action != "offline")
      return;
    const bool wantOnline = action == "online";
    ASSERT_TRUE(test::eventually([&] {
      return test::connectToLoopback(state["port"].get<int>()) == wantOnline;
    })) << action;
  }

  Json received() {
    const auto r =
        test::runProcess({QUORVEL_DEVSERVER_BIN, "requests", "--data-dir", serverDir(), "--json"},
                         dir / "scratch", 60s);  // a hang's bound: thousands of rows, sanitized
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return Json::parse(r.out, nullptr, false);
  }

  // The requests to `service`, optionally only those whose clear payload has this event.
  static std::vector<Json> find(const Json& requests, const std::string& service,
                                const std::string& event = "") {
    std::vector<Json> found;
    for (const auto& r : requests) {
      if (r["service"] != service)
        continue;
      if (!event.empty() && !(r["decrypted"].is_object() && r["decrypted"]["event"] == event))
        continue;
      found.push_back(r);
    }
    return found;
  }

  // Each value of `event` that arrived stored, and copies beyond the first sent without the
  // replay mark (the emulator answers a repeat without storing it again). A first copy that
  // the emulator held past its sender's exit is recorded after its replay, so it is the
  // unmarked copy that a value may have once.
  struct Arrivals {
    std::set<std::string> values;
    std::size_t stored = 0;
    std::size_t repeats = 0;
    std::size_t unmarkedTwice = 0;  // values sent more than once without the mark
  };
  Arrivals arrivalsOf(const std::string& event) {
    Arrivals a;
    std::map<std::string, int> unmarked;
    for (const auto& r : find(received(), "events", event)) {
      if (r["status"] != 200)
        continue;
      const auto value = r["decrypted"]["eventvalue"].get<std::string>();
      if (r["query"].get<std::string>().find("isCachedRequest=true") == std::string::npos &&
          ++unmarked[value] == 2)
        ++a.unmarkedTwice;
      if (r["repeat"] == true) {
        ++a.repeats;
        continue;
      }
      ++a.stored;
      a.values.insert(value);
    }
    return a;
  }

  // Each of `count` values of `event` stored once, none sent twice without the replay mark.
  Arrivals expectEachStoredOnce(const std::string& event, std::size_t count) {
    SCOPED_TRACE(event);
    const auto a = arrivalsOf(event);
    EXPECT_EQ(a.values.size(), count);
    EXPECT_EQ(a.stored, count);
    EXPECT_EQ(a.unmarkedTwice, 0U);
    return a;
  }

  test::TempDir dir;
  std::unique_ptr<test::BackgroundProcess> server;
  Json state;
};

TEST_F(DemoAgainstDevserver, AWholeSessionArrivesDecryptedKeyByKey) {
  const auto run = demo({"open-url demoapp://open?pid=email&c=spring com.example.mail", "launch",
                         "event purchase_made 9.99", "purchase gems 0.99 USD tx-7",
                         "register-token 0a1b2c3d", "invite sms", "idle", "background"});
  EXPECT_NE(run.out.find("< purchase validated"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("< invite link [thread quorvel.pool] https://quorvel.link.localhost:"),
            std::string::npos)
      << run.out;

  const Json requests = received();
  ASSERT_TRUE(requests.is_array());
  for (const auto& r : requests)
    EXPECT_EQ(r["status"], 200) << r.dump();

  const auto launches = find(requests, "t", "Launched");
  ASSERT_EQ(launches.size(), 1U);
  const Json& launch = launches[0]["decrypted"];
  EXPECT_EQ(launch["appUID"], "e2e-user");
  EXPECT_EQ(launch["bundleIdentifier"], "com.quorvel.demo");
  EXPECT_EQ(launch["qv_deeplink"], "demoapp://open?pid=email&c=spring");
  EXPECT_EQ(launch["deeplink_sourceapplication"], "com.example.mail");
  const std::string uid = launch["uid"];

  const auto purchases = find(requests, "events", "purchase_made");
  ASSERT_EQ(purchases.size(), 1U);
  EXPECT_EQ(purchases[0]["decrypted"]["eventvalue"], "9.99");
  EXPECT_EQ(purchases[0]["decrypted"]["uid"], uid);

  ASSERT_EQ(find(requests, "validate", "qv_purchase").size(), 1U);
  const auto receipts = find(requests, "sdk-services");
  ASSERT_EQ(receipts.size(), 1U);
  EXPECT_NE(receipts[0]["query"].get<std::string>().find("tran_id=tx-7"), std::string::npos);
  EXPECT_EQ(Json::parse(receipts[0]["body"].get<std::string>())["receipt-data"],
            "c3RvcmUgcmVjZWlwdA==");

  const auto registrations = find(requests, "register");
  ASSERT_EQ(registrations.size(), 1U);
  const Json registration = Json::parse(registrations[0]["body"].get<std::string>());
  EXPECT_EQ(registration["devkey"], kDemoKey);
  EXPECT_EQ(registration["uid"], uid);

  const auto links = find(requests, "hopline");
  ASSERT_EQ(links.size(), 1U);
  EXPECT_EQ(links[0]["decrypted"]["data"]["qv_channel"], "sms");
  ASSERT_EQ(find(requests, "events", "qv_invite").size(), 1U);
  ASSERT_EQ(find(requests, "stats").size(), 1U);
  // The emulator asked for the library's log ("monitor" 1); it is shipped on the move to the
  // background as one JSON document.
  const auto uploads = find(requests, "monitorsdk");
  ASSERT_EQ(uploads.size(), 1U);
  EXPECT_TRUE(Json::parse(uploads[0]["body"].get<std::string>()).is_object());

  // The launch's answer fetched the conversion data.
  EXPECT_NE(run.out.find("< onConversionDataReceived"), std::string::npos) << run.out;
  EXPECT_EQ(server->stop(), 0);
}

// What fails in transport while the service is away arrives once it is back, in order. A
// host that returns from main right after tracking: the exit flush delivers within its
// bound; what is still unanswered then waits in the outbox, and the next start sends it
// marked as a replay. Each event arrives exactly once.
TEST_F(DemoAgainstDevserver, EventsSentWhileTheServiceIsAwayOrAtExitArriveExactlyOnce) {
  demo({"--final-flush", "0", "event delivered_at_exit"});
  EXPECT_EQ(find(received(), "events", "delivered_at_exit").size(), 1U);
  EXPECT_EQ(cachedFiles(), 0U);

  fault("offline");
  demo({"event offline_event 7", "event offline_event 8"});
  EXPECT_EQ(cachedFiles(), 2U);
  {
    // The service's port takes the request and never answers it.
    const test::LoopbackListener hole(state["port"].get<int>());
    ASSERT_TRUE(hole.bound());
    const auto kept =
        demo({"--final-flush", "0", "--exit-flush", "1", "--verbose", "event kept_at_exit"});
    EXPECT_NE(kept.err.find("1 reports still unanswered"), std::string::npos) << kept.err;
    EXPECT_EQ(cachedFiles(), 2U);
  }
  fault("online");
  demo({"launch"});
  const Json requests = received();
  const auto offline = find(requests, "events", "offline_event");
  ASSERT_EQ(offline.size(), 2U);
  EXPECT_EQ(offline[0]["decrypted"]["eventvalue"], "7");
  EXPECT_EQ(offline[1]["decrypted"]["eventvalue"], "8");
  const auto replayed = find(requests, "events", "kept_at_exit");
  ASSERT_EQ(replayed.size(), 1U);
  const auto query = replayed[0]["query"].get<std::string>();
  EXPECT_NE(query.find("timeincache="), std::string::npos) << query;
  EXPECT_NE(query.find("isCachedRequest=true"), std::string::npos) << query;
  EXPECT_EQ(cachedFiles(), 0U);
  EXPECT_EQ(find(requests, "t", "Launched").size(), 1U);
}

// The ways a report was lost or sent twice, as a user meets them with the demo (a kill, an exit
// while the service is slow): every event arrives and is stored once; a copy sent again is
// marked as a replay.
TEST_F(DemoAgainstDevserver, NoEventIsLostOrStoredTwiceByAKillAnExitOrASlowService) {
  // A kill during a burst of 1,000, the service answering in 50 ms; then one clean start.
  fault("delay", {"events", "50"});
  {
    test::BackgroundProcess killed(demoArgv({"--script", burstScript("killed", 1000), "wait 60"}),
                                   dir / "killed.out", dir / "killed.err");
    ASSERT_TRUE(test::eventually([&] { return arrivalsOf("killed").stored >= 50; }, 60s));
    killed.killNow();
  }
  fault("clear");
  demo({"launch", "wait 1", "idle"});
  expectEachStoredOnce("killed", 1000);

  // A return from main right after 300 events, the service answering in 2 s and the exit
  // flush bounded at 1 s; then a start with the service quick again.
  fault("delay", {"events", "2000"});
  demo({"--final-flush", "0", "--exit-flush", "1", "--script", burstScript("exiting", 300)});
  fault("clear");
  demo({"launch", "wait 1", "idle"});
  expectEachStoredOnce("exiting", 300);
}

// Two processes of the app on one data directory at once: the second waits until the first
// lets the directory go, then numbers its events after the first one's. Every event of both
// is stored once; none is taken for a repeat of the other's.
TEST_F(DemoAgainstDevserver, TwoProcessesOnOneDataDirectoryLoseNoEvent) {
  const std::string steps = dir / "first.steps";
  {
    // Alive for seconds after its third event arrived: longer than the second one takes to
    // start, even under a sanitizer on a busy machine.
    std::ofstream out(steps);
    for (int i = 0; i < 20; ++i)
      out << "event first " << i << "\nwait 0.2\n";
    out << "wait 3\n";
  }
  const test::BackgroundProcess first(demoArgv({"--script", steps}), dir / "first.out",
                                      dir / "first.err");
  ASSERT_TRUE(test::eventually([&] { return arrivalsOf("first").stored >= 3; }, 30s));
  const auto second = demo({"--verbose", "--script", burstScript("second", 10)});
  EXPECT_NE(second.err.find("another process uses this app's data directory"), std::string::npos);
  ASSERT_TRUE(test::eventually([&] { return arrivalsOf("first").stored >= 20; }, 30s));
  EXPECT_EQ(expectEachStoredOnce("first", 20).repeats, 0U);
  EXPECT_EQ(expectEachStoredOnce("second", 10).repeats, 0U);
}

// The inspector in a real browser: a request shows up after a demo step, a fault switched
// from the page reaches the next requests.
TEST_F(DemoAgainstDevserver, TheInspectorShowsRequestsAndSwitchesFaults) {
  test::WebDriver browser(dir.path());
  ASSERT_TRUE(browser.ok()) << "chromedriver or chromium did not start";
  browser.open("http://127.0.0.1:" + std::to_string(state["admin_port"].get<int>()) + "/");
  const auto rowWithEvent = [&](const std::string& event) {
    return browser.run(
        "return [...document.querySelectorAll('#requests tbody tr')]"
        ".filter(tr => tr.children[2].textContent === '" +
        event + "').map(tr => tr.children[3].textContent);");
  };
  ASSERT_TRUE(test::eventually(
      [&] {
        return browser.run("return document.querySelectorAll('#fault-service option').length")
                   .get<int>() > 0;
      },
      30s));

  demo({"event inspector_seen"});
  ASSERT_TRUE(test::eventually([&] { return rowWithEvent("inspector_seen").size() == 1; }, 30s));
  EXPECT_EQ(rowWithEvent("inspector_seen")[0], "200");
  browser.run("document.querySelector('#requests tbody tr').click();");
  const std::string details =
      browser.run("return document.getElementById('details').textContent;").get<std::string>();
  EXPECT_NE(details.find("\"event\": \"inspector_seen\""), std::string::npos) << details;

  // The events service answers 503 from now on, switched from the page.
  browser.run("document.getElementById('fault-service').value = 'events';");
  ASSERT_TRUE(browser.click("#set-status"));
  ASSERT_TRUE(test::eventually([&] {
    return browser.run("return document.getElementById('state').textContent;")
               .get<std::string>()
               .find("events→503") != std::string::npos;
  }));
  demo({"event after_fault"});
  // A 503 is no delivery: the demo's exit may send it again; every copy met the fault.
  ASSERT_TRUE(test::eventually([&] { return !rowWithEvent("after_fault").empty(); }, 30s));
  for (const auto& status : rowWithEvent("after_fault"))
    EXPECT_EQ(status, "503");

  const auto shot = base64DecodeLenient(browser.screenshotBase64());
  std::ofstream(std::string(QUORVEL_BUILD_DIR) + "/inspector.png", std::ios::binary)
      .write(reinterpret_cast<const char*>(shot.data()), static_cast<std::streamsize>(shot.size()));
  EXPECT_GT(shot.size(), 1000U);

  // Offline from the page: the next event fails in transport and is kept.
  ASSERT_TRUE(browser.click("#offline"));
  ASSERT_TRUE(test::eventually([&] { return !test::connectToLoopback(state["port"].get<int>()); }));
  demo({"event while_offline"});
  EXPECT_EQ(cachedFiles(), 1U);
  ASSERT_TRUE(browser.click("#online"));
  ASSERT_TRUE(test::eventually([&] { return test::connectToLoopback(state["port"].get<int>()); }));
}

}  // namespace
}  // namespace quorvel
