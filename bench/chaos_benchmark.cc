// Delivery under chaos: a host process sends paced bursts of trackEvent to quorvel-devserver
// while this harness kills it with SIGKILL at random moments and the emulator goes offline
// and answers late at random; one clean start then drains everything. Figures, not a test:
//
//   quorvel_chaos [--kills N] [--rate EVENTS_PER_S] [--min-life MS] [--max-life MS]
//                 [--bound SECONDS] [--seed N] [--devserver PATH] [--strict 1]
//                 [--disk-full-trials N]
//
// --strict 1 exits 1 when an event was lost, a repeat may have been avoidable or a trial's
// first launch did not arrive exactly once.
//
// Prints accepted, arrived, lost, repeats (and how many were marked as replays), avoidable
// repeats and the spread between each event's timestamp and its call. Each event's value is
// "SEQ/CALL_MS"; the host appends "SEQ CALL_MS" to a file with write(2) once the call has
// returned, so what a killed host accepted is known from the kernel's copy. A repeat counts as
// avoidable when it is not marked as a replay, or when it and its previous copy were both
// sent within the life of one host. A replay's send time is its call plus its "timeincache";
// a first copy's is its call: only the life that made the call sends it unmarked, even when
// the emulator holds it past that life's death and records it after its replay.
//
// With QUORVEL_CHAOS_LOG set, each host's outbox lines go to host.log, the lost events and
// avoidable repeats are listed, and the run's files are kept.
//
// Then each disk-full trial starts a fresh install on a disk that takes no byte (the file
// size limit at 0): its first launch is killed or returns from main, and a start with room
// follows. It prints in how many trials that install's first launch arrived once.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
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
constexpr const char* kDevKey = "CHAOS-DEV-KEY-0001";

// QUORVEL_CHAOS_LOG set: host logs, lost events and avoidable repeats listed, files kept.
bool logging() {
  static const bool on = std::getenv("QUORVEL_CHAOS_LOG") != nullptr;
  return on;
}

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

struct Options {
  int kills = 200;
  int rate = 1500;  // events per second while a host lives
  int minLifeMs = 100;
  int maxLifeMs = 900;
  int boundSeconds = 300;
  unsigned seed = 1;
  bool strict = false;  // exit 1 when an event was lost or a repeat may have been avoidable
  int diskFullTrials = 0;
  std::string devserver = QUORVEL_DEVSERVER_BIN;
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const std::string value = argv[i + 1];
    if (flag == "--kills")
      o.kills = std::stoi(value);
    else if (flag == "--rate")
      o.rate = std::max(1, std::stoi(value));
    else if (flag == "--min-life")
      o.minLifeMs = std::stoi(value);
    else if (flag == "--max-life")
      o.maxLifeMs = std::stoi(value);
    else if (flag == "--bound")
      o.boundSeconds = std::stoi(value);
    else if (flag == "--seed")
      o.seed = static_cast<unsigned>(std::stoul(value));
    else if (flag == "--devserver")
      o.devserver = value;
    else if (flag == "--disk-full-trials")
      o.diskFullTrials = std::atoi(value.c_str());
    else if (flag == "--strict")
      o.strict = value == "1";
  }
  o.maxLifeMs = std::max(o.maxLifeMs, o.minLifeMs);
  return o;
}

// --- The host ---------------------------------------------------------------------------------

struct HostArgs {
  fs::path root;
  std::string domain;
  std::string caFile;
  long long firstSeq = 0;
  int rate = 0;
  // "send" (paced bursts until killed), "drain" (start, wait for the stop file, return) or
  // "full-launch" (a launch on a disk that takes no byte, then a return from main)
  std::string mode = "send";
  std::string trial = "-";  // the customer user id that names a disk-full trial's install
};

// Each line starts with the milliseconds since the host made its platform.
class OutboxLines final : public quorvel::platform::SystemLog {
 public:
  void write(std::string_view line) noexcept override {
    if (line.find("outbox") == std::string_view::npos &&
        line.find("Outbox") == std::string_view::npos)
      return;
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_)
            .count();
    std::fprintf(stderr, "%8.1f %.*s\n", ms, static_cast<int>(line.size()), line.data());
  }

 private:
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Sends paced bursts until killed; a draining host only starts, waits for the harness's stop
// file and returns from main, as an app that the user opens once more would.
int runHost(const HostArgs& a) {
  if (a.mode == "full-launch") {
    // No file may grow: every write of the library fails, as on a full disk.
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit none{0, 0};
    if (::setrlimit(RLIMIT_FSIZE, &none) != 0)
      return 2;
  }
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.example.chaos";
  options.dataDirectory = (a.root / "app").string();
  options.keychainDirectory = (a.root / "keychain").string();
  options.extraCAFile = a.caFile;
  quorvel::Platform platform = quorvel::makePosixPlatform(options);
  if (logging())
    platform.systemLog = std::make_shared<OutboxLines>();
  quorvel::installPlatform(platform);
  auto& tracker = quorvel::QuorvelTracker::sharedTracker();
  if (logging())
    tracker.setIsDebug(true);
  tracker.setQuorvelDevKey(std::string(kDevKey));
  tracker.setAppleAppID(std::string(kApp));
  tracker.setHost(a.domain);
  tracker.setDisableIAdTracking(true);
  if (a.trial != "-")
    tracker.setCustomerUserID(a.trial);
  tracker.trackAppLaunch();
  if (a.mode == "full-launch") {
    std::this_thread::sleep_for(400ms);
    return 0;  // the exit flush runs, on a disk that is still full
  }
  if (a.mode == "drain") {
    const auto deadline = std::chrono::steady_clock::now() + 30min;
    while (!fs::exists(a.root / "stop") && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(50ms);
    return 0;
  }
  const int fd = ::open((a.root / "accepted").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
  if (fd < 0)
    return 2;
  const int perTick = std::max(1, a.rate / 50);
  for (long long seq = a.firstSeq;;) {
    for (int i = 0; i < perTick; ++i, ++seq) {
      const auto callMs = static_cast<long long>(std::llround(wallSeconds() * 1000.0));
      tracker.trackEvent("chaos", std::to_string(seq) + "/" + std::to_string(callMs));
      const std::string line = std::to_string(seq) + " " + std::to_string(callMs) + "\n";
      if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        return 2;
    }
    std::this_thread::sleep_for(20ms);
  }
}

// --- The harness ------------------------------------------------------------------------------

struct Run {
  double start = 0;  // wall seconds
  double end = 0;
  double killedAt = 0;
};

pid_t spawnHost(const Options& o, const HostArgs& a) {
  const std::vector<std::string> args = {"/proc/self/exe",
                                         "--host",
                                         a.root.string(),
                                         a.domain,
                                         a.caFile,
                                         std::to_string(a.firstSeq),
                                         std::to_string(a.rate),
                                         a.mode,
                                         a.trial};
  std::vector<char*> argv;
  for (const auto& s : args)
    argv.push_back(const_cast<char*>(s.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const std::string log = (a.root / "host.log").string();
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  (void)o;
  return rc == 0 ? pid : -1;
}

std::map<long long, long long> readAccepted(const fs::path& file) {
  std::map<long long, long long> accepted;  // seq -> call ms
  std::ifstream in(file);
  long long seq = 0;
  long long ms = 0;
  while (in >> seq >> ms)
    accepted[seq] = ms;
  return accepted;
}

struct Arrival {
  long long seq = 0;
  double sentAt = 0;  // the call, plus a replay's own account of its wait
  double timestamp = 0;
  bool marked = false;
};

// Calls `row` for each row of `sql` over the emulator's requests, read-only; none when the
// database cannot be read (yet).
void forEachRow(const std::string& database, const char* sql,
                const std::function<void(sqlite3_stmt*)>& row) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 2000);
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) == SQLITE_OK) {
      while (sqlite3_step(s) == SQLITE_ROW)
        row(s);
    }
    sqlite3_finalize(s);
  }
  sqlite3_close(db);
}

std::string columnText(sqlite3_stmt* s, int column) {
  const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s, column));
  return p != nullptr ? std::string(p) : std::string();
}

std::vector<Arrival> readArrivals(const std::string& database) {
  std::vector<Arrival> out;
  forEachRow(database,
             "SELECT query, decrypted FROM requests WHERE service = 'events' AND "
             "status = 200 ORDER BY id",
             [&](sqlite3_stmt* s) {
               const quorvel::Json payload = quorvel::Json::parse(columnText(s, 1), nullptr, false);
               if (!payload.is_object() || payload.value("event", "") != "chaos")
                 return;
               const std::string value = payload.value("eventvalue", "");
               Arrival a;
               a.seq = std::atoll(value.substr(0, value.find('/')).c_str());
               // A first send leaves in the life that made the call (the emulator may hold
               // it past that life's death); a replay says how long it waited.
               const double callMs = std::atof(value.substr(value.find('/') + 1).c_str());
               a.sentAt = callMs / 1000.0;
               const std::string query = columnText(s, 0);
               if (const auto at = query.find("timeincache="); at != std::string::npos)
                 a.sentAt += std::atof(query.c_str() + at + 12);
               a.timestamp = std::atof(payload.value("timestamp", "0").c_str());
               a.marked = query.find("isCachedRequest=true") != std::string::npos;
               out.push_back(a);
             });
  return out;
}

// What a killed host left: its outbox's records (intents by their first and last sequence
// number, built requests by count) and the files of the offline cache.
void audit(const fs::path& root, int run, long long firstSeq) {
  sqlite3* db = nullptr;
  const std::string path = (root / "app/Library/QuorvelOutbox.sqlite").string();
  long long intents = 0;
  long long built = 0;
  long long lowest = -1;
  long long highest = -1;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT id, content FROM outbox", -1, &s, nullptr) == SQLITE_OK) {
      while (sqlite3_step(s) == SQLITE_ROW) {
        const std::string content(static_cast<const char*>(sqlite3_column_blob(s, 1)),
                                  static_cast<std::size_t>(sqlite3_column_bytes(s, 1)));
        const auto at = content.find("\"value\":\"");
        if (content.find("\"kind\":\"request\"") != std::string::npos) {
          ++built;
        } else if (at != std::string::npos) {
          ++intents;
          const long long seq = std::atoll(content.c_str() + at + 9);
          lowest = lowest < 0 ? seq : std::min(lowest, seq);
          highest = std::max(highest, seq);
        }
      }
    }
    sqlite3_finalize(s);
  }
  sqlite3_close(db);
  std::size_t files = 0;
  std::error_code ec;
  for (auto it = fs::directory_iterator(root / "app/Library/Caches/QuorvelCache", ec);
       !ec && it != fs::directory_iterator(); ++it)
    ++files;
  std::fprintf(stderr, "run %d from %lld: %lld intents (%lld..%lld), %lld built, %zu files\n", run,
               firstSeq, intents, lowest, highest, built, files);
}

std::size_t runOf(const std::vector<Run>& runs, double at) {
  // The last host started before the request was recorded sent it (or the one before, just
  // before its death, which only makes a repeat look unavoidable).
  std::size_t run = 0;
  for (std::size_t i = 0; i < runs.size(); ++i)
    if (at >= runs[i].start)
      run = i;
  return run;
}

// One random fault (or none) before each host's life: offline for a while, late answers, or
// back to normal. None of them answers an error: an error status is an answer, not a loss.
void playFault(quorvel::bench::Devserver& server, std::mt19937& random) {
  switch (std::uniform_int_distribution<int>(0, 5)(random)) {
    case 0:
      server.fault("/faults/offline?seconds=" +
                   std::to_string(std::uniform_int_distribution<int>(1, 2)(random)));
      break;
    case 1:
      server.fault("/faults/delay?service=*&ms=" +
                   std::to_string(std::uniform_int_distribution<int>(50, 1500)(random)));
      break;
    case 2:
      server.fault("/faults/clear");
      break;
    default:
      break;
  }
}

// How many first launches (launch counter 1) of each trial's install arrived.
std::map<std::string, int> firstLaunchesByTrial(const std::string& database) {
  std::map<std::string, int> out;
  forEachRow(database,
             "SELECT decrypted FROM requests WHERE service = 't' AND status = 200 ORDER BY id",
             [&](sqlite3_stmt* s) {
               const quorvel::Json payload = quorvel::Json::parse(columnText(s, 0), nullptr, false);
               if (payload.is_object() && payload.value("counter", "") == "1" &&
                   payload.contains("appUID"))
                 ++out[payload.value("appUID", "")];
             });
  return out;
}

// A fresh install's first launch on a full disk, killed or returning from main, then a start
// with room: the install's first launch must arrive once.
bool runDiskFullTrials(const Options& o, quorvel::bench::Devserver& server, std::mt19937& random,
                       const fs::path& root) {
  int killed = 0;
  for (int t = 0; t < o.diskFullTrials; ++t) {
    HostArgs host{
        root / ("full-" + std::to_string(t)), server.domain(), server.caFile(), 0, 0, "full-launch",
        "trial-" + std::to_string(t)};
    fs::create_directories(host.root);
    const pid_t full = spawnHost(o, host);
    if (full < 0)
      throw std::runtime_error("cannot start the host");
    if (t % 2 == 1) {
      ++killed;
      std::this_thread::sleep_for(
          std::chrono::milliseconds(std::uniform_int_distribution<int>(50, 350)(random)));
      ::kill(full, SIGKILL);
    }
    int status = 0;
    ::waitpid(full, &status, 0);
    host.mode = "drain";
    const pid_t clean = spawnHost(o, host);
    if (clean < 0)
      throw std::runtime_error("cannot start the host");
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline &&
           firstLaunchesByTrial(server.database()).count(host.trial) == 0)
      std::this_thread::sleep_for(50ms);
    std::this_thread::sleep_for(300ms);  // a second first launch, if any, shows up too
    { std::ofstream(host.root / "stop") << "stop\n"; }
    ::waitpid(clean, &status, 0);
  }
  const auto arrived = firstLaunchesByTrial(server.database());
  int once = 0;
  int twice = 0;
  for (int t = 0; t < o.diskFullTrials; ++t) {
    const auto it = arrived.find("trial-" + std::to_string(t));
    const int count = it == arrived.end() ? 0 : it->second;
    once += count == 1 ? 1 : 0;
    twice += count > 1 ? 1 : 0;
  }
  std::printf(
      "disk full at the first launch: %d trials (%d killed, %d returned from main), "
      "then a start with room\n",
      o.diskFullTrials, killed, o.diskFullTrials - killed);
  std::printf("  first launch arrived      once in %d, more than once in %d, never in %d\n", once,
              twice, o.diskFullTrials - once - twice);
  std::fflush(stdout);
  return once == o.diskFullTrials;
}

int runHarness(const Options& o, const fs::path& root) {
  quorvel::bench::Devserver server(o.devserver, root / "server", kApp, kDevKey);
  std::mt19937 random(o.seed);
  std::vector<Run> runs;
  HostArgs host{root, server.domain(), server.caFile(), 0, o.rate, "send", "-"};
  const auto started = std::chrono::steady_clock::now();
  for (int k = 0; k < o.kills; ++k) {
    playFault(server, random);
    // A host killed between a call and its note leaves that number taken: skip past it, so
    // that two lives never give one number to two events.
    const auto noted = readAccepted(root / "accepted");
    host.firstSeq = noted.empty() ? 0 : noted.rbegin()->first + 10;
    Run run{wallSeconds(), 0};
    const pid_t pid = spawnHost(o, host);
    if (pid < 0)
      throw std::runtime_error("cannot start the host");
    std::this_thread::sleep_for(std::chrono::milliseconds(
        std::uniform_int_distribution<int>(o.minLifeMs, o.maxLifeMs)(random)));
    run.killedAt = wallSeconds();
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.end = wallSeconds();
    runs.push_back(run);
    if (logging())
      audit(root, k, host.firstSeq);
    if (!WIFSIGNALED(status))
      std::fprintf(stderr, "quorvel_chaos: host %d ended by itself (status %d)\n", k, status);
  }
  const auto accepted = readAccepted(root / "accepted");

  // One clean start drains what the killed hosts left.
  server.fault("/faults/clear");
  server.fault("/faults/online");
  host.mode = "drain";
  Run drain{wallSeconds(), 0};
  const pid_t pid = spawnHost(o, host);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(o.boundSeconds);
  std::set<long long> distinct;
  // Done when all arrived, or when nothing more arrived for a while (the rest is lost).
  auto lastProgress = std::chrono::steady_clock::now();
  std::size_t lastCount = 0;
  while (std::chrono::steady_clock::now() < deadline &&
         std::chrono::steady_clock::now() - lastProgress < 20s) {
    distinct.clear();
    for (const auto& a : readArrivals(server.database()))
      if (accepted.count(a.seq) > 0)
        distinct.insert(a.seq);
    if (distinct.size() >= accepted.size())
      break;
    if (distinct.size() != lastCount) {
      lastCount = distinct.size();
      lastProgress = std::chrono::steady_clock::now();
    }
    if (logging())
      std::fprintf(stderr, "drain: %zu of %zu arrived\n", distinct.size(), accepted.size());
    std::this_thread::sleep_for(200ms);
  }
  std::this_thread::sleep_for(1s);  // late repeats, if any, show up too
  { std::ofstream(root / "stop") << "stop\n"; }
  int status = 0;
  ::waitpid(pid, &status, 0);
  drain.end = wallSeconds();
  runs.push_back(drain);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  const auto arrivals = readArrivals(server.database());
  std::map<long long, std::vector<const Arrival*>> bySeq;
  for (const auto& a : arrivals)
    bySeq[a.seq].push_back(&a);
  for (auto& [seq, copies] : bySeq)
    std::stable_sort(copies.begin(), copies.end(),
                     [](const Arrival* x, const Arrival* y) { return x->sentAt < y->sentAt; });
  std::size_t arrived = 0;
  std::size_t unrecorded = 0;  // arrived, but the host died before noting that its call returned
  std::size_t repeats = 0;
  std::size_t marked = 0;
  std::size_t avoidable = 0;
  double spread = 0;
  for (const auto& [seq, copies] : bySeq) {
    const auto call = accepted.find(seq);
    if (call == accepted.end()) {
      ++unrecorded;
    } else {
      ++arrived;
      spread = std::max(spread, std::fabs(copies.front()->timestamp -
                                          static_cast<double>(call->second) / 1000.0));
    }
    for (std::size_t i = 1; i < copies.size(); ++i) {
      ++repeats;
      marked += copies[i]->marked ? 1U : 0U;
      if (!copies[i]->marked ||
          runOf(runs, copies[i]->sentAt) == runOf(runs, copies[i - 1]->sentAt)) {
        ++avoidable;
        if (logging())
          std::fprintf(stderr, "avoidable %lld: marked %d, lives %zu and %zu, sent %.3f and %.3f\n",
                       seq, copies[i]->marked ? 1 : 0, runOf(runs, copies[i - 1]->sentAt),
                       runOf(runs, copies[i]->sentAt), copies[i - 1]->sentAt, copies[i]->sentAt);
      }
    }
  }
  // The outbox's promise is a write within 10 ms of the call: a kill inside that window may
  // take the last calls with it, and those are counted apart.
  std::size_t lost = 0;
  std::size_t lostInWindow = 0;
  for (const auto& [seq, callMs] : accepted) {
    if (bySeq.count(seq) > 0)
      continue;
    const double call = static_cast<double>(callMs) / 1000.0;
    const auto& run = runs[runOf(runs, call)];
    if (run.killedAt > 0 && run.killedAt - call < 0.010) {
      ++lostInWindow;
    } else {
      ++lost;
      if (logging())
        std::fprintf(
            stderr, "lost %lld: life %zu, %.1f ms after its start, %.1f ms before its kill\n", seq,
            runOf(runs, call), (call - run.start) * 1000.0, (run.killedAt - call) * 1000.0);
    }
  }
  std::printf(
      "chaos: %d hosts killed at random (%d-%d ms lives, %d events/s), then one clean "
      "start; %.0f s\n",
      o.kills, o.minLifeMs, o.maxLifeMs, o.rate, seconds);
  std::printf("  accepted                  %zu\n", accepted.size());
  std::printf("  arrived                   %zu (+%zu accepted just before a kill noted it)\n",
              arrived, unrecorded);
  std::printf("  lost                      %zu (+%zu called within 10 ms of a kill)\n", lost,
              lostInWindow);
  std::printf("  repeats                   %zu (%zu marked as replays)\n", repeats, marked);
  std::printf("  avoidable repeats         %zu at most (unmarked, or both copies in one life)\n",
              avoidable);
  std::printf("  timestamp - call, max     %.1f ms\n", spread * 1000.0);
  std::fflush(stdout);
  const bool launchesOnce = o.diskFullTrials == 0 || runDiskFullTrials(o, server, random, root);
  return !o.strict || (lost == 0 && avoidable == 0 && launchesOnce) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--host") {
    if (argc != 9)
      return 2;  // never the harness: a host that starts hosts would never stop
    HostArgs a{argv[2], argv[3], argv[4], std::atoll(argv[5]), std::atoi(argv[6]),
               argv[7], argv[8]};
    return runHost(a);
  }
  const Options o = parse(argc, argv);
  char pattern[] = "/tmp/quorvel-chaos-XXXXXX";
  const char* made = ::mkdtemp(pattern);
  if (made == nullptr) {
    std::perror("mkdtemp");
    return 2;
  }
  const fs::path root = made;
  int rc = 0;
  try {
    rc = runHarness(o, root);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quorvel_chaos: %s\n", e.what());
    rc = 2;
  }
  if (rc == 0 && !logging()) {
    std::error_code ignored;
    fs::remove_all(root, ignored);
  } else {
    std::fprintf(stderr, "quorvel_chaos: the run's files are kept in %s\n", root.c_str());
  }
  return rc;
}
