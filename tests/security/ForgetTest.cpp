// Forgetting an install, on the real files through the host test kit: nothing of the app is
// left but the stop flag, and a kill at any moment of the job leaves either the whole install
// or, once the next start has finished the job, nothing of it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include <quorvel/QuorvelTracker.h>
#include <quorvel/testing/TestPlatform.h>

#include "platform/posix/FileSecureStore.h"
#include "platform/posix/SqliteOutboxStore.h"
#include "support/Eventually.h"
#include "support/TempDir.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kKey = "FORGET-TEST-KEY";
constexpr const char* kOutboxFile = "QuorvelOutbox.sqlite";

PosixPlatformOptions optionsIn(const std::string& dir) {
  PosixPlatformOptions options;
  options.bundleIdentifier = "com.example.forget";
  options.dataDirectory = dir + "/app";
  options.keychainDirectory = dir + "/keychain";
  return options;
}

// The folder watches this process keeps (each an inotify instance, with a thread).
std::size_t folderWatches() {
  std::size_t n = 0;
  for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    n += fs::read_symlink(fd.path(), ec) == "anon_inode:inotify" ? 1 : 0;
  }
  return n;
}

std::string readAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Every regular file under `dir` with its content; the outbox's database files stand for the
// records they hold, read after the trackers are gone.
std::map<std::string, std::string> snapshot(const std::string& dir) {
  std::map<std::string, std::string> files;
  bool outbox = false;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    if (!entry.is_regular_file())
      continue;
    const std::string name = entry.path().filename().string();
    if (name.rfind(kOutboxFile, 0) == 0) {
      outbox = true;
      continue;
    }
    files[fs::relative(entry.path(), dir).string()] = readAll(entry.path());
  }
  platform::SqliteOutboxStore store(dir + "/app/Library/" + kOutboxFile);
  std::string reason;
  // An empty store is no trace of the install: the next report makes one anyway.
  for (const auto& record :
       outbox&& store.open(reason) ? store.load(-1, 100000) : std::vector<platform::OutboxRecord>{})
    files["outbox records"] += std::to_string(record.id) + ":" + record.content + "\n";
  return files;
}

std::string listing(const std::map<std::string, std::string>& files) {
  std::string out;
  for (const auto& [name, content] : files)
    out += name + " (" + std::to_string(content.size()) + " bytes)\n";
  return out;
}

// A session that leaves every kind of state: identifiers, counters, conversion data, the
// uninstall token, kept requests and reports waiting in the outbox for an answer.
void liveASession(const std::string& dir) {
  auto kit = testkit::makeTestPlatform(optionsIn(dir), kKey);
  QuorvelTracker tracker(kit.platform);
  tracker.setQuorvelDevKey(std::string(kKey));
  tracker.setAppleAppID(std::string("123456789"));
  tracker.setCustomerUserID(std::string("customer-1"));
  tracker.trackAppLaunch();
  kit.dispatcher->advance(10s);
  tracker.registerUninstall(Bytes{1, 2, 3, 4});
  kit.transport->setResponder([](const auto&) { return testkit::Answer::offline(); });
  for (int i = 0; i < 3; ++i)
    tracker.trackEvent("kept_" + std::to_string(i), std::nullopt);
  kit.dispatcher->advance(10s);
  kit.transport->setResponder(nullptr);
  kit.transport->holdAnswers(true);
  for (int i = 0; i < 3; ++i)
    tracker.trackEvent("unanswered_" + std::to_string(i), std::nullopt);
  kit.dispatcher->advance(10s);
  // The process ends with those requests on the wire: their answers never come.
  kit.transport->clear();
}

// What the requests sent to these services carried.
std::vector<Json> reportsTo(const testkit::TestPlatform& kit,
                            std::initializer_list<std::string_view> services) {
  std::vector<Json> out;
  for (const auto& request : kit.transport->sent())
    if (request.payload && std::ranges::find(services, request.service()) != services.end())
      out.push_back(*request.payload);
  return out;
}

constexpr const char* kStopMarker = "app/Library/QuorvelStopped";

// The files of a forgotten install: the stop flag in the preferences, the stop marker that
// other processes read and the random epoch that tells them of the forgetting, nothing else.
::testing::AssertionResult forgotten(std::map<std::string, std::string> files) {
  // The install's date marker holds only the moment of the forgetting.
  if (files.erase(kStopMarker) == 1 && files.erase("app/Library/QuorvelInstallEpoch") == 1 &&
      files.erase("app/Library/.quorvel-created") == 1 && files.size() == 1 &&
      files.begin()->first.find("Preferences/") != std::string::npos &&
      Json::parse(files.begin()->second, nullptr, false) == Json{{"QuorvelStopped", true}})
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "left behind:\n" << listing(files);
}

TEST(Forget, ForgettingLeavesOnlyTheStopFlagAndTheNextRunIsAFreshInstall) {
  test::TempDir dir;
  liveASession(dir.path());
  const auto before = snapshot(dir.path());
  ASSERT_TRUE(before.count("outbox records")) << listing(before);
  ASSERT_GE(before.size(), 6U) << listing(before);  // preferences, keychain, 3 kept requests

  // Writes that a kill cut short: each temp file holds what its write held.
  const std::string item = platform::FileSecureStore(dir / "keychain")
                               .itemPath(keys::kKeychainService, keys::kKeychainIdItem);
  for (const std::string& left :
       {item + ".tmp-Kq3x9Z", dir / "app/Library/QuorvelForgetting.tmp-a1",
        dir / "app/Library/Preferences/com.example.forget.json.tmp-b2",
        dir / "app/tmp/quorvel-download-71-3"})
    std::ofstream(left) << "old-uid";

  {
    auto kit = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
    QuorvelTracker tracker(kit.platform);
    EXPECT_FALSE(tracker.getQuorvelUID().empty());
    EXPECT_TRUE(tracker.forgetThisInstall());
    EXPECT_TRUE(tracker.isStopped());
    EXPECT_TRUE(tracker.forgetThisInstall());  // again: nothing to do, still fine
    tracker.trackEvent("after_forgetting", std::nullopt);
    kit.dispatcher->advance(10s);
    EXPECT_TRUE(kit.transport->sent().empty());
    EXPECT_EQ(folderWatches(), 0U);  // stopped, it holds no data directory to watch
  }
  // Nothing is left to send or to number from: the next start is a fresh install's once the
  // user consents again (ForgettingThenOptingInAgainInOneProcessStartsAFreshInstall), and it
  // finds the stop.
  EXPECT_TRUE(forgotten(snapshot(dir.path())));
  auto kit = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
  EXPECT_TRUE(QuorvelTracker(kit.platform).isStopped());
}

// Forgetting while a request is on the wire (the launch, or the conversion-data request its
// answer starts): the answer that comes after is not applied. Nothing more leaves, the host's
// delegate hears nothing, and no identifier, link setting or attribution is written.
TEST(Forget, AnAnswerThatComesAfterForgettingIsNotApplied) {
  // The launch's answer, the conversion data's, a link's resolution.
  for (const char* held : {"t", "sdk", "hopline"}) {
    SCOPED_TRACE(held);
    test::TempDir dir;
    auto delegate = std::make_shared<QuorvelTrackerDelegate>();
    int heard = 0;
    delegate->onConversionDataReceived = [&](const Json&) { ++heard; };
    delegate->onConversionDataRequestFailure = [&](const Error&) { ++heard; };
    delegate->onAppOpenAttribution = [&](const Json&) { ++heard; };
    {
      auto kit = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
      QuorvelTracker tracker(kit.platform);
      tracker.setQuorvelDevKey(std::string(kKey));
      tracker.setAppleAppID(std::string("123456789"));
      tracker.setDelegate(delegate);
      kit.transport->holdAnswers(true);
      if (std::string(held) == "hopline")
        tracker.handleOpenURL("https://app.quorvel.link/tmpl/abc", std::nullopt);
      tracker.trackAppLaunch();
      kit.dispatcher->advance(1s);
      if (std::string(held) == "sdk") {
        ASSERT_TRUE(kit.transport->answer(0, testkit::Answer{}));
        kit.dispatcher->advance(500ms);
        ASSERT_EQ(kit.transport->sent().back().service(), "sdk");
      }
      std::size_t inFlight = kit.transport->sent().size() - 1;
      while (inFlight > 0 && kit.transport->sent()[inFlight].service() != held)
        --inFlight;
      ASSERT_EQ(kit.transport->sent()[inFlight].service(), held);
      ASSERT_TRUE(tracker.forgetThisInstall());
      const std::size_t sentAtForget = kit.transport->sent().size();
      testkit::Answer late;
      late.body = R"({"hl_domain":"links.svc.example","status":"ok"})";
      ASSERT_TRUE(kit.transport->answer(inFlight, late));
      kit.dispatcher->advance(10s);  // and the Search Ads attempts, 2 s apart
      EXPECT_EQ(kit.transport->sent().size(), sentAtForget);
      EXPECT_EQ(heard, 0);
      kit.transport->clear();
    }
    EXPECT_TRUE(forgotten(snapshot(dir.path())));
  }
}

// Forgetting, then the user's consent again, in one process: the next launch is a fresh
// install's, with nothing of the user the host set before or of the counters kept before.
TEST(Forget, ForgettingThenOptingInAgainInOneProcessStartsAFreshInstall) {
  test::TempDir dir;
  liveASession(dir.path());  // an earlier process: its counters are kept with its reports
  auto kit = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
  QuorvelTracker tracker(kit.platform);
  tracker.setQuorvelDevKey(std::string(kKey));
  tracker.setAppleAppID(std::string("123456789"));
  tracker.setCustomerUserID(std::string("customer-1"));
  tracker.setUserEmails(std::vector<std::string>{"someone@example.com"}, 0);
  tracker.setAdditionalData(Json{{"plan", "gold"}});
  tracker.trackAppLaunch();
  kit.dispatcher->advance(10s);
  tracker.registerUninstall(Bytes{9});  // its send waits 3.5 s, then reads the install date
  ASSERT_TRUE(tracker.forgetThisInstall());
  kit.dispatcher->advance(5s);
  EXPECT_FALSE(kit.platform->preferences->objectForKey(keys::kInstallDate));  // kept nothing
  kit.transport->clear();

  tracker.setStopped(false);
  tracker.trackAppLaunch();
  kit.dispatcher->advance(10s);
  EXPECT_EQ(folderWatches(), 1U);  // the new store is watched as the old one was
  const auto launches = reportsTo(kit, {"t"});
  ASSERT_EQ(launches.size(), 1U);
  EXPECT_EQ(launches[0].value("counter", ""), "1");
  const std::string text = launches[0].dump();
  for (const char* before : {"customer-1", "someone@example.com", "gold"})
    EXPECT_EQ(text.find(before), std::string::npos) << before << " in " << text;
}

// The holder of the data directory, its launch (with the customer's id) waiting in its outbox.
void launchOffline(QuorvelTracker& tracker, testkit::TestPlatform& kit) {
  tracker.setQuorvelDevKey(std::string(kKey));
  tracker.setAppleAppID(std::string("123456789"));
  tracker.setCustomerUserID(std::string("customer-1"));
  kit.transport->setResponder([](const auto&) { return testkit::Answer::offline(); });
  tracker.trackAppLaunch();
  kit.dispatcher->advance(10s);
}

// A forgetting and an opt-in from two threads at once end as one of their orders would: the
// switch this start runs by is the one the next start reads.
TEST(Forget, AForgettingAndAnOptInAtOnceAgreeWithTheNextStart) {
  for (int trial = 0; trial < 20; ++trial) {
    test::TempDir dir;
    bool running = false;
    {
      auto kit = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
      QuorvelTracker tracker(kit.platform);
      launchOffline(tracker, kit);
      tracker.setStopped(true);
      std::atomic<int> ready{0};
      const auto together = [&ready] {
        ++ready;
        while (ready < 2) {
        }
      };
      std::thread optIn([&] { together(), tracker.setStopped(false); });
      together();
      EXPECT_TRUE(tracker.forgetThisInstall());
      optIn.join();
      running = !tracker.isStopped();
    }
    auto kit = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
    const QuorvelTracker nextStart(kit.platform);
    EXPECT_EQ(!nextStart.isStopped(), running) << trial;
  }
}

// Two processes on one data directory: the other's stop, or its forgetting, holds here at once,
// idle or not; what was on the wire here is not applied, and nothing more leaves. A forgetting
// made by the process that does not hold the data directory is finished here, the holder:
// nothing of the install is left once both are gone.
TEST(Forget, AnotherProcessOnTheSameDataSeesTheStopWithinASecond) {
  {
    // A second real process, which does not hold the folder (nor watch it), sees the holder's
    // stop at its next look, within a second of its clock. Forked before any thread is made.
    test::TempDir dir;
    int toGuest[2];
    int toHolder[2];
    ASSERT_EQ(::pipe(toGuest) | ::pipe(toHolder), 0);
    char byte = 0;
    const pid_t guestProcess = ::fork();
    if (guestProcess == 0) {
      if (::read(toGuest[0], &byte, 1) != 1)
        _exit(3);
      auto kit = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
      QuorvelTracker guest(kit.platform);
      launchOffline(guest, kit);
      if (guest.isStopped() || ::write(toHolder[1], "g", 1) != 1 ||
          ::read(toGuest[0], &byte, 1) != 1)
        _exit(4);
      kit.dispatcher->advance(1s);
      _exit(guest.isStopped() ? 0 : 1);
    }
    auto kit = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
    QuorvelTracker holder(kit.platform);
    launchOffline(holder, kit);
    ASSERT_EQ(::write(toGuest[1], "h", 1), 1);
    ASSERT_EQ(::read(toHolder[0], &byte, 1), 1);
    holder.setStopped(true);
    ASSERT_EQ(::write(toGuest[1], "s", 1), 1);
    int status = 0;
    ASSERT_EQ(::waitpid(guestProcess, &status, 0), guestProcess);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  for (const bool forget : {false, true}) {
    SCOPED_TRACE(forget ? "forget" : "stop");
    test::TempDir dir;
    {
      auto here = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
      auto other = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
      QuorvelTracker tracker(here.platform);
      launchOffline(tracker, here);
      const std::size_t sent = here.transport->sent().size();
      ASSERT_GT(sent, 0U);
      ASSERT_FALSE(tracker.isStopped());  // looked just now: the next look is a second away
      {
        QuorvelTracker otherProcess(other.platform);
        if (forget)
          EXPECT_TRUE(otherProcess.forgetThisInstall());
        else
          otherProcess.setStopped(true);
      }
      // Idle here, the virtual clock standing still: the marker's making is what tells.
      EXPECT_TRUE(test::eventually([&] { return tracker.isStopped(); }, 10s));
      here.dispatcher->advance(1s);
      tracker.trackEvent("after_the_other_stopped", std::nullopt);
      here.dispatcher->advance(10s);
      EXPECT_TRUE(tracker.isStopped());
      EXPECT_EQ(here.transport->sent().size(), sent);
      here.transport->clear();
    }
    if (forget) {
      EXPECT_TRUE(forgotten(snapshot(dir.path())));
    }
  }
}

// A holder stopped before the other process forgets: it forgets too, idle and stopped, and
// opting in again afterwards starts a fresh install that sends nothing of the old one.
TEST(Forget, AHolderStoppedBeforeTheOtherProcessForgetsForgetsToo) {
  // Idle, it forgets as the marker is made; busy (not watching), at its opt-in at the latest.
  for (const bool idle : {true, false}) {
    SCOPED_TRACE(idle ? "idle" : "busy");
    test::TempDir dir;
    auto here = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
    auto other = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
    QuorvelTracker tracker(here.platform);
    launchOffline(tracker, here);
    tracker.setStopped(true);
    if (idle)
      here.dispatcher->advance(2s);  // the holder watches its folder once idle
    EXPECT_TRUE(QuorvelTracker(other.platform).forgetThisInstall());
    const fs::path marker = dir / "app/Library/QuorvelForgetting";
    if (idle) {
      // The watch's news reaches the tracker's queue, which runs on the test's virtual time.
      EXPECT_TRUE(test::eventually(
          [&] {
            here.dispatcher->runUntilIdle();
            return !fs::exists(marker);
          },
          10s));
    }
    here.transport->clear();
    here.transport->setResponder(nullptr);
    tracker.setStopped(false);
    tracker.trackAppLaunch();
    here.dispatcher->advance(10s);
    const auto launches = reportsTo(here, {"t"});
    ASSERT_EQ(launches.size(), 1U);
    EXPECT_EQ(launches[0].value("counter", ""), "1");
    EXPECT_EQ(launches[0].dump().find("customer-1"), std::string::npos);
    here.transport->clear();
  }
}

// The other process forgets, and the user consents again there, between two looks of this
// one: this one lets go of the old install all the same (its user, its identifier) and runs.
TEST(Forget, AForgettingAndAnOptInBetweenTwoLooksReachTheOtherProcess) {
  test::TempDir dir;
  auto here = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
  auto other = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
  QuorvelTracker tracker(here.platform);
  launchOffline(tracker, here);
  const std::string uid = tracker.getQuorvelUID();
  {
    QuorvelTracker otherProcess(other.platform);
    ASSERT_TRUE(otherProcess.forgetThisInstall());
    otherProcess.setStopped(false);
    // Kept for the holder, which has not seen the forgetting yet: the new install's report.
    otherProcess.trackEvent("consented_elsewhere", std::nullopt);
    other.dispatcher->advance(300ms);
  }
  EXPECT_TRUE(test::eventually(
      [&] {
        here.dispatcher->advance(1s);
        return !tracker.isStopped() && tracker.getQuorvelUID() != uid;
      },
      10s));
  here.transport->clear();
  here.transport->setResponder(nullptr);
  tracker.trackEvent("after", std::nullopt);
  here.dispatcher->advance(10s);
  const auto reports = reportsTo(here, {"events"});
  ASSERT_EQ(reports.size(), 2U);
  EXPECT_EQ(
      std::ranges::count_if(
          reports, [](const Json& r) { return r.value("event", "") == "consented_elsewhere"; }),
      1);
  const Json after = reports[0].value("event", "") == "after" ? reports[0] : reports[1];
  EXPECT_EQ(after.value("uid", ""), tracker.getQuorvelUID());
  EXPECT_EQ(after.dump().find("customer-1"), std::string::npos);
}

// What a guest kept for the holder after the holder forgot, the guest dying before it saw the
// forgetting (a guest tracker, or a file such a guest left, of the old epoch or of none), is
// never sent under the install the user consents to next; a guest file of the new install is.
TEST(Forget, WhatAGuestKeptBeforeItSawTheForgettingIsNeverSent) {
  // The last: the forgetting's process killed after its markers, before it renewed the epoch.
  enum class Guest { tracker, fileOfNoEpoch, fileOfTheNewEpoch, fileAfterAKilledForgetting };
  for (const auto guest : {Guest::tracker, Guest::fileOfNoEpoch, Guest::fileOfTheNewEpoch,
                           Guest::fileAfterAKilledForgetting}) {
    SCOPED_TRACE(static_cast<int>(guest));
    test::TempDir dir;
    auto here = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
    auto other = testkit::makeTestPlatform(optionsIn(dir.path()), kKey);
    QuorvelTracker tracker(here.platform);
    launchOffline(tracker, here);
    auto guestTracker = std::make_unique<QuorvelTracker>(other.platform);
    guestTracker->setQuorvelDevKey(std::string(kKey));
    guestTracker->setAppleAppID(std::string("123456789"));
    guestTracker->trackEvent("before", std::nullopt);  // a guest from now on
    other.dispatcher->advance(300ms);
    if (guest == Guest::fileAfterAKilledForgetting) {
      guestTracker.reset();          // its file is written by hand below
      here.dispatcher->advance(2s);  // idle: the holder watches its folder
      for (const auto& [name, content] : {std::pair{"QuorvelForgetting", std::string(16, 'e')},
                                          std::pair{"QuorvelStopped", std::string("f")}}) {
        std::ofstream(dir / "app/Library/tmp-marker") << content;
        fs::rename(dir / "app/Library/tmp-marker", dir / ("app/Library/" + std::string(name)));
      }
      EXPECT_TRUE(test::eventually(
          [&] {
            here.dispatcher->runUntilIdle();
            return !fs::exists(dir / "app/Library/QuorvelForgetting");
          },
          10s));
    } else {
      ASSERT_TRUE(tracker.forgetThisInstall());
    }
    const std::string epoch = [&] {
      std::string hex;
      for (const unsigned char c : readAll(dir / "app/Library/QuorvelInstallEpoch"))
        hex += "0123456789abcdef"[c >> 4U] + std::string(1, "0123456789abcdef"[c & 15U]);
      return hex;
    }();
    const auto leaveAFile = [&] {
      const std::string head =
          guest == Guest::fileOfTheNewEpoch ? R"("epoch":")" + epoch + "\"," : "";
      const auto at = std::chrono::duration<double>(here.clock->now().time_since_epoch()).count();
      return platform::SqliteOutboxStore(dir / ("app/Library/" + std::string(kOutboxFile)))
          .appendAsGuest({{1, "{" + head + R"("at":)" + std::to_string(at) +
                                  R"(,"kind":"event","name":"kept_by_the_guest"})"}});
    };
    if (guest == Guest::tracker) {
      // Within the second before its next look at the markers: the guest still runs.
      guestTracker->trackEvent("kept_by_the_guest", std::nullopt);
      other.dispatcher->advance(300ms);
    } else if (guest != Guest::fileAfterAKilledForgetting) {
      ASSERT_TRUE(leaveAFile());
    }
    other.transport->clear();
    guestTracker.reset();  // the guest dies before it sees the forgetting
    here.transport->clear();
    here.transport->setResponder(nullptr);
    tracker.setStopped(false);
    // After the opt-in here, which forgets once more as the stop marker still says so.
    if (guest == Guest::fileAfterAKilledForgetting) {
      ASSERT_TRUE(leaveAFile());
    }
    tracker.trackAppLaunch();
    bool sent = false;
    for (int look = 0; look < 5 && !sent; ++look) {  // the holder takes guest files as it syncs
      here.dispatcher->advance(3s);
      for (const auto& request : here.transport->sent())
        sent = sent || (request.payload &&
                        request.payload->dump().find("kept_by_the_guest") != std::string::npos);
    }
    EXPECT_EQ(sent, guest == Guest::fileOfTheNewEpoch);
    for (const auto& file : fs::directory_iterator(dir / "app/Library"))
      EXPECT_EQ(file.path().filename().string().find(".guest-"), std::string::npos) << file.path();
    here.transport->clear();
  }
}

// One trial, in a process of its own so that the test's process never forks with threads:
// copies the install, forgets it in a child killed after `delay` (none: never killed), then
// starts once more and says what that start found. Exit 0: all of the install, 1: none of it,
// 2: a half state, 3 and up: the trial itself failed. With no kill, the forgetting's duration
// in microseconds goes to `timing`.
[[noreturn]] void forgetAndKill(const std::string& from, const std::string& dir,
                                std::optional<std::chrono::microseconds> delay,
                                const std::string& timing) {
  std::error_code ec;
  fs::copy(from, dir, fs::copy_options::recursive, ec);
  if (ec)
    _exit(3);
  const auto whole = snapshot(dir);
  int ready[2];
  if (::pipe(ready) != 0)
    _exit(4);
  const pid_t child = ::fork();
  if (child == 0) {
    auto kit = testkit::makeTestPlatform(optionsIn(dir), kKey);
    QuorvelTracker tracker(kit.platform);
    if (::write(ready[1], "r", 1) != 1)
      _exit(5);
    _exit(tracker.forgetThisInstall() ? 0 : 6);
  }
  char byte = 0;
  if (::read(ready[0], &byte, 1) != 1)
    _exit(7);
  const auto start = std::chrono::steady_clock::now();
  if (delay) {
    std::this_thread::sleep_for(*delay);  // the kill's moment, not a wait for a result
    ::kill(child, SIGKILL);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!delay) {
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - start);
    std::ofstream(timing) << took.count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
      _exit(8);
  }
  {
    auto kit = testkit::makeTestPlatform(optionsIn(dir), kKey);
    const QuorvelTracker nextStart(kit.platform);
  }
  auto after = snapshot(dir);
  if (forgotten(after))
    _exit(1);
  // Not forgotten: everything is as it was, but for the stop flag set first and the temp file
  // of a write the kill cut short (removed by a later start, or by the next forgetting).
  std::erase_if(after, [](const auto& f) {
    return f.first.find(".tmp-") != std::string::npos || f.first == kStopMarker;
  });
  for (auto& [name, content] : after) {
    Json values = Json::parse(content, nullptr, false);
    if (name.find("Preferences/") != std::string::npos && values.is_object() &&
        values.erase("QuorvelStopped") == 1 && values == Json::parse(whole.at(name)))
      content = whole.at(name);
  }
  if (after == whole)
    _exit(0);
  std::fprintf(stderr, "half state:\n%swas:\n%s", listing(after).c_str(), listing(whole).c_str());
  _exit(2);
}

int runTrial(const std::string& from, const std::string& dir,
             std::optional<std::chrono::microseconds> delay, const std::string& timing) {
  const pid_t trial = ::fork();
  if (trial == 0)
    forgetAndKill(from, dir, delay, timing);
  int status = 0;
  ::waitpid(trial, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
}

TEST(Forget, AKillAtAnyMomentOfForgettingNeverLeavesAHalfForgottenInstall) {
  test::TempDir dir;
  const std::string install = dir / "install";
  liveASession(install);
  const std::string timing = dir / "timing";
  ASSERT_EQ(runTrial(install, dir / "calibration", std::nullopt, timing), 1);
  const auto took = std::chrono::microseconds(std::stoll(readAll(timing)));
  // From before the job starts to after it ends.
  std::mt19937 random(20261125);
  std::uniform_int_distribution<std::int64_t> moment(0, took.count() * 3 / 2);
  int kept = 0;
  int gone = 0;
  for (int i = 0; i < 50; ++i) {
    const auto result = runTrial(install, dir / ("trial" + std::to_string(i)),
                                 std::chrono::microseconds(moment(random)), timing);
    ASSERT_LE(result, 1) << "trial " << i << ": 2 is a half state, more a failed trial";
    (result == 0 ? kept : gone)++;
  }
  // Which moments the kills hit varies with the machine; the figures say how they fell.
  RecordProperty("forgetting_us", static_cast<int>(took.count()));
  RecordProperty("kills_before_the_marker", kept);
  RecordProperty("kills_after_the_marker", gone);
}

}  // namespace
}  // namespace quorvel
