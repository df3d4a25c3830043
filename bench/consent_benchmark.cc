// Consent from outside: what leaves and what stays on disk once stop or forget returned,
// against a real quorvel-devserver. Figures, not a test:
//
//   quorvel_consent [--runs N] [--pair-trials N] [--margin-ms MS] [--seed N]
//                   [--devserver PATH] [--strict 1]
//
// Forget runs: each run is a fresh install in a host process that configures a customer user
// id, e-mails and a conversion-data delegate, launches, sends a few events and calls
// forgetThisInstall() at a random moment within 2.2 s while the emulator holds every answer
// for a random 0-2 s; meanwhile a thread of the host sends an event every 2 ms, so that
// reports are being built at the moment of the forgetting. The host lives 2.1 s more (every
// held answer comes back meanwhile), then returns from main. Counted after each run:
//   - requests that arrived after forget returned. The emulator records a request once it
//     answered it, that is after the run's delay: its arrival is its record time minus that
//     delay. A request counts as after forget when it arrived later than the forget's return
//     plus the margin (default 50 ms, for a request already on the wire at that instant: a
//     send begun before the return and still in its TLS handshake);
//   - delegate calls after forget returned;
//   - files under the data (with its tmp), secure-store folders holding, byte for byte, the
//     uid, the vendor id, the customer user id or an e-mail of the run.
// Pair trials: two processes on one data directory, the first holding it; one of them stops
// or forgets 1.5 s after the first's start while the other keeps sending an event every
// 50 ms. Counted: requests arriving later than 1 s (plus the margin) after the return, the
// latest call of the other process that arrived (how soon it stopped), and after a
// forgetting, the files that hold an identifier and whether the call returned true.
// Opt-in: a process configures and stops (kept), a later one configures while stopped, runs
// again and sends an event, which must arrive.
//
// --strict 1 exits 1 on any violation.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <quorvel/Json.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

#include "Devserver.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kApp = "123456789";
constexpr const char* kDevKey = "CONSENT-DEV-KEY-0001";
constexpr int kMaxDelayMs = 2000;
constexpr int kLifeAfterForgetMs = 2100;

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

struct Options {
  int runs = 50;
  int pairTrials = 8;
  int marginMs = 50;
  unsigned seed = 1;
  bool strict = false;
  std::string devserver = QUORVEL_DEVSERVER_BIN;
};

constexpr const char* kUsage =
    "usage: quorvel_consent [--runs N (50)] [--pair-trials N (8)] [--margin-ms MS (50)]\n"
    "                       [--seed N (1)] [--devserver PATH] [--strict 1]\n";

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    }
  }
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const std::string value = argv[i + 1];
    if (flag == "--runs")
      o.runs = std::max(0, std::stoi(value));
    else if (flag == "--pair-trials")
      o.pairTrials = std::max(0, std::stoi(value));
    else if (flag == "--margin-ms")
      o.marginMs = std::max(0, std::stoi(value));
    else if (flag == "--seed")
      o.seed = static_cast<unsigned>(std::stoul(value));
    else if (flag == "--devserver")
      o.devserver = value;
    else if (flag == "--strict")
      o.strict = value == "1";
  }
  return o;
}

// --- The host ---------------------------------------------------------------------------------

// What a host process is told: `mode` is "forget" (one forget run), "pair" (one side of a
// pair trial), "stop" (configure, stop, return) or "opt-in" (configure, run again, one event).
struct HostArgs {
  std::string mode;
  fs::path root;  // the install's folders: root/app, root/keychain
  std::string domain;
  std::string caFile;
  std::string name;          // the host's events and notes
  std::string action = "-";  // pair: "none", "stop" or "forget"
  int actAtMs = 0;           // forget run and pair: when the action comes, after the start
  int lifeMs = 0;            // pair: the life, from the start
};

// Notes go to root/notes-<name>, one write(2) each, so that they are on disk at once.
class Notes {
 public:
  explicit Notes(const fs::path& file)
      : fd_(::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600)) {}
  ~Notes() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  Notes(const Notes&) = delete;
  Notes& operator=(const Notes&) = delete;
  void add(const std::string& line) const {
    const std::string text = line + "\n";
    if (fd_ >= 0)
      (void)!::write(fd_, text.data(), text.size());
  }

 private:
  int fd_;
};

std::string secondsText(double s) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6f", s);
  return text;
}

quorvel::QuorvelTracker& configuredTracker(const HostArgs& a, const Notes& notes,
                                           std::shared_ptr<quorvel::QuorvelTrackerDelegate>& del) {
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.example.consent";
  options.dataDirectory = (a.root / "app").string();
  options.keychainDirectory = (a.root / "keychain").string();
  options.extraCAFile = a.caFile;
  quorvel::installPlatform(quorvel::makePosixPlatform(options));
  auto& tracker = quorvel::QuorvelTracker::sharedTracker();
  tracker.setQuorvelDevKey(std::string(kDevKey));
  tracker.setAppleAppID(std::string(kApp));
  tracker.setHost(a.domain);
  del = std::make_shared<quorvel::QuorvelTrackerDelegate>();
  del->onConversionDataReceived = [&notes](const quorvel::Json&) {
    notes.add("delegate " + secondsText(wallSeconds()));
  };
  del->onAppOpenAttribution = del->onConversionDataReceived;
  tracker.setDelegate(del);
  tracker.setExitFlushTimeout(500ms);
  return tracker;
}

// The identifiers this host set or made, for the harness's scan.
void noteIdentifiers(quorvel::QuorvelTracker& tracker, const HostArgs& a, const Notes& notes) {
  const std::string customer = "customer-" + a.root.filename().string() + "-" + a.name;
  const std::string email = "mail-" + a.root.filename().string() + "-" + a.name + "@example.com";
  tracker.setCustomerUserID(customer);
  tracker.setUserEmails(std::vector<std::string>{email}, quorvel::QuorvelEmailCryptType::none);
  notes.add("id " + customer);
  notes.add("id " + email);
}

int runForgetHost(const HostArgs& a) {
  const Notes notes(a.root / ("notes-" + a.name));
  std::shared_ptr<quorvel::QuorvelTrackerDelegate> delegate;
  auto& tracker = configuredTracker(a, notes, delegate);
  noteIdentifiers(tracker, a, notes);
  const auto start = std::chrono::steady_clock::now();
  tracker.trackAppLaunch();
  notes.add("id " + tracker.getQuorvelUID());
  for (int i = 0; i < 3; ++i)
    tracker.trackEvent("consent", std::to_string(i));
  // The app is in use at the moment of the forgetting: reports are being built then.
  std::atomic<bool> forgotten{false};
  std::thread busy([&tracker, &forgotten] {
    for (int i = 0; !forgotten.load(); ++i) {
      tracker.trackEvent("busy", std::to_string(i));
      std::this_thread::sleep_for(2ms);
    }
  });
  std::this_thread::sleep_until(start + std::chrono::milliseconds(a.actAtMs));
  const bool forgot = tracker.forgetThisInstall();
  notes.add("forget " + secondsText(wallSeconds()) + " " + (forgot ? "1" : "0"));
  forgotten = true;
  busy.join();
  std::this_thread::sleep_for(std::chrono::milliseconds(kLifeAfterForgetMs));
  return 0;
}

// Sends an event "<name>" valued "SEQ/CALL_S" every 50 ms for its life; the action comes at
// its time.
int runPairHost(const HostArgs& a) {
  const Notes notes(a.root / ("notes-" + a.name));
  std::shared_ptr<quorvel::QuorvelTrackerDelegate> delegate;
  auto& tracker = configuredTracker(a, notes, delegate);
  noteIdentifiers(tracker, a, notes);
  const auto start = std::chrono::steady_clock::now();
  tracker.trackAppLaunch();
  notes.add("id " + tracker.getQuorvelUID());
  bool acted = a.action == "none";
  for (int seq = 0; std::chrono::steady_clock::now() - start < std::chrono::milliseconds(a.lifeMs);
       ++seq) {
    if (!acted &&
        std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(a.actAtMs)) {
      acted = true;
      bool ok = true;
      if (a.action == "stop")
        tracker.setStopped(true);
      else
        ok = tracker.forgetThisInstall();
      notes.add("act " + secondsText(wallSeconds()) + " " + (ok ? "1" : "0"));
    }
    tracker.trackEvent(a.name, std::to_string(seq) + "/" + secondsText(wallSeconds()));
    std::this_thread::sleep_for(50ms);
  }
  return 0;
}

int runStopOrOptInHost(const HostArgs& a) {
  const Notes notes(a.root / ("notes-" + a.name));
  std::shared_ptr<quorvel::QuorvelTrackerDelegate> delegate;
  // A host configures at start, stopped or not.
  auto& tracker = configuredTracker(a, notes, delegate);
  if (a.mode == "stop") {
    tracker.trackAppLaunch();
    tracker.setStopped(true);
    return 0;
  }
  tracker.setStopped(false);
  tracker.trackEvent("opt-in", "1");
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (tracker.deliveryStats().delivered == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(50ms);
  return 0;
}

int runHost(const HostArgs& a) {
  if (a.mode == "forget")
    return runForgetHost(a);
  if (a.mode == "pair")
    return runPairHost(a);
  return runStopOrOptInHost(a);
}

// --- The harness ------------------------------------------------------------------------------

pid_t spawnHost(const HostArgs& a) {
  const std::vector<std::string> args = {
      "/proc/self/exe", "--host", a.mode,   a.root.string(),           a.domain,
      a.caFile,         a.name,   a.action, std::to_string(a.actAtMs), std::to_string(a.lifeMs)};
  std::vector<char*> argv;
  for (const auto& s : args)
    argv.push_back(const_cast<char*>(s.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const std::string log = (a.root / ("host-" + a.name + ".log")).string();
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0)
    throw std::runtime_error("cannot start the host");
  return pid;
}

void waitFor(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    std::fprintf(stderr, "quorvel_consent: a host ended with status %d\n", status);
}

struct HostNotes {
  std::vector<std::string> ids;
  double actedAt = 0;  // the forget's or the stop's return, wall seconds
  bool actionOk = true;
  std::vector<double> delegateCalls;
};

HostNotes readNotes(const fs::path& file) {
  HostNotes n;
  std::ifstream in(file);
  std::string word;
  while (in >> word) {
    if (word == "id") {
      std::string id;
      in >> id;
      n.ids.push_back(id);
    } else if (word == "forget" || word == "act") {
      int ok = 1;
      in >> n.actedAt >> ok;
      n.actionOk = ok == 1;
    } else if (word == "delegate") {
      double at = 0;
      in >> at;
      n.delegateCalls.push_back(at);
    }
  }
  return n;
}

struct Recorded {
  long long id = 0;
  double time = 0;
  std::string service;
  std::string path;
  std::string query;
  quorvel::Json payload;
};

std::string columnText(sqlite3_stmt* s, int column) {
  const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s, column));
  return p != nullptr ? std::string(p) : std::string();
}

// The requests recorded after `afterId`, read-only.
std::vector<Recorded> recordedSince(const std::string& database, long long afterId) {
  std::vector<Recorded> out;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 2000);
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db,
                           "SELECT id, time, service, path, query, decrypted FROM requests "
                           "WHERE id > ? ORDER BY id",
                           -1, &s, nullptr) == SQLITE_OK &&
        sqlite3_bind_int64(s, 1, afterId) == SQLITE_OK) {
      while (sqlite3_step(s) == SQLITE_ROW) {
        Recorded r;
        r.id = sqlite3_column_int64(s, 0);
        r.time = sqlite3_column_double(s, 1);
        r.service = columnText(s, 2);
        r.path = columnText(s, 3);
        r.query = columnText(s, 4);
        r.payload = quorvel::Json::parse(columnText(s, 5), nullptr, false);
        out.push_back(std::move(r));
      }
    }
    sqlite3_finalize(s);
  }
  sqlite3_close(db);
  return out;
}

long long lastId(const std::string& database) {
  const auto all = recordedSince(database, 0);
  return all.empty() ? 0 : all.back().id;
}

// The identifiers the requests carried: uid, vendor id, the conversion request's device id.
void collectIdentifiers(const std::vector<Recorded>& requests, std::set<std::string>& ids) {
  for (const auto& r : requests) {
    if (r.payload.is_object()) {
      for (const char* key : {"uid", "vendorId", "appUID"}) {
        const auto it = r.payload.find(key);
        if (it != r.payload.end() && it->is_string())
          ids.insert(it->get<std::string>());
      }
    }
    if (const auto at = r.query.find("device_id="); at != std::string::npos)
      ids.insert(r.query.substr(at + 10, r.query.find('&', at) - at - 10));
  }
}

std::string fileText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Files under the install's data (with its tmp) and secure-store folders that hold one of
// `ids`, as "path (identifier)".
std::vector<std::string> filesHolding(const fs::path& root, const std::set<std::string>& ids) {
  std::vector<std::string> out;
  for (const char* folder : {"app", "keychain"}) {
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root / folder, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (!it->is_regular_file(ec))
        continue;
      const std::string text = fileText(it->path());
      for (const auto& id : ids) {
        if (id.size() >= 6 && text.find(id) != std::string::npos) {
          out.push_back(fs::relative(it->path(), root).string() + " (" + id + ")");
          break;
        }
      }
    }
  }
  return out;
}

struct Violations {
  std::vector<std::string> lines;
  void add(const std::string& what) { lines.push_back(what); }
};

std::string lateRequest(const Recorded& r, double late) {
  char text[256];
  std::snprintf(text, sizeof text, "%s%s %.0f ms late", r.service.c_str(), r.path.c_str(),
                late * 1000.0);
  return text;
}

struct ForgetFigures {
  int runs = 0;
  int falseReturns = 0;
  int requestsAfter = 0;
  int runsWithRequestsAfter = 0;
  int delegateCallsAfter = 0;
  int filesHolding = 0;
  int runsWithFiles = 0;
};

ForgetFigures runForgets(const Options& o, quorvel::bench::Devserver& server, std::mt19937& random,
                         const fs::path& root, Violations& v) {
  ForgetFigures f;
  const double margin = o.marginMs / 1000.0;
  for (int run = 0; run < o.runs; ++run) {
    const int delayMs = std::uniform_int_distribution<int>(0, kMaxDelayMs)(random);
    server.fault("/faults/delay?service=*&ms=" + std::to_string(delayMs));
    const long long before = lastId(server.database());
    HostArgs a{"forget", root / ("run-" + std::to_string(run)), server.domain(), server.caFile(),
               "host"};
    a.actAtMs = std::uniform_int_distribution<int>(50, 2200)(random);
    fs::create_directories(a.root);
    waitFor(spawnHost(a));
    // An answer held past the host's life is recorded before the next run starts.
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs + 100));
    const HostNotes notes = readNotes(a.root / "notes-host");
    const auto requests = recordedSince(server.database(), before);
    ++f.runs;
    const std::string label = "run " + std::to_string(run) + " (delay " + std::to_string(delayMs) +
                              " ms, forget at " + std::to_string(a.actAtMs) + " ms): ";
    if (!notes.actionOk || notes.actedAt == 0) {
      ++f.falseReturns;
      v.add(label + "forgetThisInstall returned false");
    }
    int after = 0;
    for (const auto& r : requests) {
      const double arrival = r.time - delayMs / 1000.0;
      if (arrival > notes.actedAt + margin) {
        ++after;
        v.add(label + "request after forget: " + lateRequest(r, arrival - notes.actedAt));
      }
    }
    f.requestsAfter += after;
    f.runsWithRequestsAfter += after > 0 ? 1 : 0;
    for (const double at : notes.delegateCalls) {
      if (at > notes.actedAt) {
        ++f.delegateCallsAfter;
        v.add(label + "delegate called after forget");
      }
    }
    std::set<std::string> ids(notes.ids.begin(), notes.ids.end());
    collectIdentifiers(requests, ids);
    const auto files = filesHolding(a.root, ids);
    f.filesHolding += static_cast<int>(files.size());
    f.runsWithFiles += files.empty() ? 0 : 1;
    for (const auto& file : files)
      v.add(label + "file holds an identifier: " + file);
  }
  server.fault("/faults/clear");
  return f;
}

struct PairFigures {
  int trials = 0;
  int falseReturns = 0;
  int requestsLate = 0;           // arrived more than 1 s (+ margin) after the action returned
  double latestOtherCall = -1e9;  // the other process's latest call that arrived, after it
  int filesHolding = 0;
};

// Trial kinds, in turn: the holder stops, the holder forgets, the other stops, the other
// forgets.
PairFigures runPairs(const Options& o, quorvel::bench::Devserver& server, const fs::path& root,
                     Violations& v) {
  PairFigures p;
  const double margin = o.marginMs / 1000.0;
  for (int t = 0; t < o.pairTrials; ++t) {
    const bool holderActs = t % 4 < 2;
    const std::string action = t % 2 == 0 ? "stop" : "forget";
    const long long before = lastId(server.database());
    const fs::path dir = root / ("pair-" + std::to_string(t));
    fs::create_directories(dir);
    HostArgs first{"pair", dir, server.domain(), server.caFile(), "a", holderActs ? action : "none",
                   1500,   4500};
    HostArgs second = first;
    second.name = "b";
    second.action = holderActs ? "none" : action;
    second.actAtMs = 1100;  // started 400 ms later: the same moment
    second.lifeMs = 4100;
    const pid_t a = spawnHost(first);
    std::this_thread::sleep_for(400ms);
    const pid_t b = spawnHost(second);
    waitFor(a);
    waitFor(b);
    std::this_thread::sleep_for(300ms);
    ++p.trials;
    const HostNotes na = readNotes(dir / "notes-a");
    const HostNotes nb = readNotes(dir / "notes-b");
    const HostNotes& actor = holderActs ? na : nb;
    const std::string other = holderActs ? "b" : "a";
    const std::string label =
        "pair " + std::to_string(t) + " (" + (holderActs ? "holder " : "other ") + action + "s): ";
    if (!actor.actionOk || actor.actedAt == 0) {
      ++p.falseReturns;
      v.add(label + "forgetThisInstall returned false");
    }
    const auto requests = recordedSince(server.database(), before);
    for (const auto& r : requests) {
      if (r.time > actor.actedAt + 1.0 + margin) {
        ++p.requestsLate;
        v.add(label + "request more than 1 s after: " + lateRequest(r, r.time - actor.actedAt));
      }
      if (r.payload.is_object() && r.payload.value("event", "") == other) {
        const std::string value = r.payload.value("eventvalue", "");
        const double call = std::atof(value.substr(value.find('/') + 1).c_str());
        p.latestOtherCall = std::max(p.latestOtherCall, call - actor.actedAt);
      }
    }
    if (action == "forget") {
      std::set<std::string> ids(na.ids.begin(), na.ids.end());
      ids.insert(nb.ids.begin(), nb.ids.end());
      collectIdentifiers(requests, ids);
      const auto files = filesHolding(dir, ids);
      p.filesHolding += static_cast<int>(files.size());
      for (const auto& file : files)
        v.add(label + "file holds an identifier: " + file);
    }
  }
  return p;
}

// A kept stop, then a start that configures while stopped and runs again: its event arrives.
bool optInDelivers(quorvel::bench::Devserver& server, const fs::path& root) {
  const long long before = lastId(server.database());
  const fs::path dir = root / "opt-in";
  fs::create_directories(dir);
  HostArgs stop{"stop", dir, server.domain(), server.caFile(), "stop"};
  waitFor(spawnHost(stop));
  HostArgs optIn = stop;
  optIn.mode = "opt-in";
  optIn.name = "opt-in";
  waitFor(spawnHost(optIn));
  for (const auto& r : recordedSince(server.database(), before)) {
    if (r.payload.is_object() && r.payload.value("event", "") == "opt-in")
      return true;
  }
  return false;
}

int runHarness(const Options& o, const fs::path& root) {
  quorvel::bench::Devserver server(o.devserver, root / "server", kApp, kDevKey);
  std::mt19937 random(o.seed);
  Violations v;
  const auto started = std::chrono::steady_clock::now();
  const ForgetFigures f = runForgets(o, server, random, root, v);
  const PairFigures p = runPairs(o, server, root, v);
  const bool optIn = optInDelivers(server, root);
  if (!optIn)
    v.add("opt-in after a kept stop: the event did not arrive");
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf(
      "consent: %d forget runs (answers held 0-%d ms, forget within 2.2 s of the launch), "
      "%d pair trials; margin %d ms; %.0f s\n",
      f.runs, kMaxDelayMs, p.trials, o.marginMs, seconds);
  std::printf("  forget returned false                 %d runs\n", f.falseReturns);
  std::printf("  requests after forget returned        %d (in %d runs)\n", f.requestsAfter,
              f.runsWithRequestsAfter);
  std::printf("  delegate calls after forget returned  %d\n", f.delegateCallsAfter);
  std::printf("  files holding an identifier after     %d (in %d runs)\n", f.filesHolding,
              f.runsWithFiles);
  std::printf("  pair: forget returned false           %d trials\n", p.falseReturns);
  std::printf("  pair: requests > 1 s after the return %d\n", p.requestsLate);
  if (p.latestOtherCall > -1e8)
    std::printf("  pair: other's latest call delivered   %+.0f ms after the return\n",
                p.latestOtherCall * 1000.0);
  else
    std::printf("  pair: other's latest call delivered   none of its calls arrived\n");
  std::printf("  pair: files holding an identifier     %d\n", p.filesHolding);
  std::printf("  opt-in after a kept stop delivers     %s\n", optIn ? "yes" : "no");
  const bool otherStopped = p.latestOtherCall <= 1.0;
  if (!otherStopped)
    v.add("pair: the other process's calls arrived more than 1 s after the return");
  for (const auto& line : v.lines)
    std::printf("  violation: %s\n", line.c_str());
  std::fflush(stdout);
  return !o.strict || v.lines.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--host") {
    if (argc != 10)
      return 2;  // never the harness: a host that starts hosts would never stop
    HostArgs a{argv[2],           argv[3], argv[4], argv[5], argv[6], argv[7], std::atoi(argv[8]),
               std::atoi(argv[9])};
    return runHost(a);
  }
  const Options o = parse(argc, argv);
  return quorvel::bench::inScratchFolder(
      "quorvel_consent", [&](const fs::path& root) { return runHarness(o, root); },
      [](int rc) { return rc != 0 || std::getenv("QUORVEL_CONSENT_KEEP") != nullptr; });
}
