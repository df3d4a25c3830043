// End-to-end figures of a burst: a host calls trackEvent N times in a loop; the library
// delivers through the real stack (payload, cipher, libcurl, TLS) to quorvel-devserver on
// loopback. Prints what the service received and when, the connections it accepted per
// host, the host's peak resident memory, the host thread's cost per call, and what was left
// in the offline cache. Also measures the emulator alone from one kept-alive client.
//
//   quorvel_burst [--events N] [--devserver PATH] [--emulator-requests N] [--bound SECONDS]
//                 [--connections N]   (per host; the library's default otherwise)
//                 [--host DOMAIN --ca-file PEM]   (a server of one's own instead)
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <curl/curl.h>

#include <quorvel/Json.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

#include "Devserver.h"
#include "common/QuorvelAES128Crypto.h"
#include "log/Log.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* kApp = "123456789";
constexpr const char* kDevKey = "BURST-DEV-KEY-0001";

struct Options {
  int events = 10'000;
  int emulatorRequests = 20'000;
  int boundSeconds = 300;
  int idleSeconds =
      10;  // how long the tracker idles after the burst before its threads are counted
  std::string devserver = QUORVEL_DEVSERVER_BIN;
  std::optional<std::string> host;  // another server instead of quorvel-devserver
  std::string caFile;
  std::size_t connections = quorvel::PosixPlatformOptions{}.maxConnectionsPerHost;
};

constexpr const char* kUsage =
    "usage: quorvel_burst [--events N (10000)] [--emulator-requests N (20000; 0: none)]\n"
    "                     [--idle SECONDS (10)] [--bound SECONDS] [--connections N]\n"
    "                     [--devserver PATH] [--host DOMAIN --ca-file PEM]\n";

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
    if (flag == "--events")
      o.events = std::stoi(value);
    else if (flag == "--emulator-requests")
      o.emulatorRequests = std::stoi(value);
    else if (flag == "--idle")
      o.idleSeconds = std::stoi(value);
    else if (flag == "--connections")
      o.connections = static_cast<std::size_t>(std::stoul(value));
    else if (flag == "--bound")
      o.boundSeconds = std::stoi(value);
    else if (flag == "--devserver")
      o.devserver = value;
    else if (flag == "--host")
      o.host = value;
    else if (flag == "--ca-file")
      o.caFile = value;
  }
  return o;
}

class NullLog final : public quorvel::platform::SystemLog {
 public:
  void write(std::string_view) noexcept override {}
};

long peakRssKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

std::size_t filesIn(const fs::path& dir) {
  std::error_code ec;
  if (!fs::exists(dir, ec))
    return 0;
  return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir, ec), {}));
}

// The library's threads: every thread of this process but the one running the benchmark.
long libraryThreads() {
  std::error_code ec;
  const auto tasks = std::distance(fs::directory_iterator("/proc/self/task", ec), {});
  return static_cast<long>(tasks) - 1;
}

std::string threadNames() {
  std::error_code ec;
  std::map<std::string, int> names;
  for (const auto& task : fs::directory_iterator("/proc/self/task", ec)) {
    std::ifstream in(task.path() / "comm");
    std::string name;
    std::getline(in, name);
    ++names[name];
  }
  std::string out;
  for (const auto& [name, count] : names)
    out += (out.empty() ? "" : ", ") + name + (count > 1 ? " x" + std::to_string(count) : "");
  return out;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty())
    return 0;
  std::sort(values.begin(), values.end());
  const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1));
  return values[index];
}

// Each arrived burst event's counter and `timestamp`, read from the emulator's requests.
using Stamps = std::map<long long, double>;

Stamps burstTimestamps(const std::string& database) {
  Stamps stamps;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 2000);
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db,
                           "SELECT decrypted FROM requests WHERE service = 'events' AND "
                           "status = 200 AND repeat = 0",
                           -1, &s, nullptr) == SQLITE_OK) {
      while (sqlite3_step(s) == SQLITE_ROW) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        const quorvel::Json payload =
            quorvel::Json::parse(text != nullptr ? text : "", nullptr, false);
        if (payload.is_object() && payload.value("event", "") == "burst_event")
          stamps[std::atoll(payload.value("iaecounter", "0").c_str())] =
              std::atof(payload.value("timestamp", "0").c_str());
      }
    }
    sqlite3_finalize(s);
  }
  sqlite3_close(db);
  return stamps;
}

// The burst itself, against `domain`; `delivered` tells how many requests arrived, and
// `timestamps` what their events carried (none when the server's store cannot be read).
int burst(const Options& o, const fs::path& root, const std::string& domain,
          const std::string& caFile, const std::string& serverName,
          const std::function<long long()>& delivered,
          const std::function<std::string()>& connections,
          const std::function<Stamps()>& timestamps) {
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.quorvel.burst";
  options.dataDirectory = (root / "app").string();
  options.keychainDirectory = (root / "keychain").string();
  options.extraCAFile = caFile;
  options.maxConnectionsPerHost = o.connections;
  quorvel::Platform platform = quorvel::makePosixPlatform(options);
  platform.systemLog = std::make_shared<NullLog>();
  quorvel::installPlatform(platform);

  auto& tracker = quorvel::QuorvelTracker::sharedTracker();
  tracker.setQuorvelDevKey(std::string(kDevKey));
  tracker.setAppleAppID(std::string(kApp));
  tracker.setHost(domain);
  tracker.setDisableIAdTracking(true);
  tracker.trackAppLaunch();
  const long rssBefore = peakRssKiB();
  // After init: the launch has gone out and its answer is in.
  for (const auto until = Clock::now() + 10s; delivered() < 1 && Clock::now() < until;)
    std::this_thread::sleep_for(20ms);
  std::this_thread::sleep_for(200ms);
  const long threadsAfterInit = libraryThreads();
  const std::string namesAfterInit = threadNames();

  std::vector<double> callNs;
  callNs.reserve(static_cast<std::size_t>(o.events));
  std::vector<Clock::time_point> callAt;  // to compare with each event's `timestamp`
  callAt.reserve(static_cast<std::size_t>(o.events));
  const std::optional<std::string> value("9.99");
  rusage threadBefore{};
  getrusage(RUSAGE_THREAD, &threadBefore);
  const auto start = Clock::now();
  const double wallAtStart =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  for (int i = 0; i < o.events; ++i) {
    const auto before = Clock::now();
    callAt.push_back(before);
    tracker.trackEvent("burst_event", value);
    callNs.push_back(std::chrono::duration<double, std::nano>(Clock::now() - before).count());
  }
  const double hostSeconds = std::chrono::duration<double>(Clock::now() - start).count();
  rusage threadAfter{};
  getrusage(RUSAGE_THREAD, &threadAfter);
  long threadsInBurst = libraryThreads();
  const long long expected = o.events + 1;  // the launch too
  const auto deadline = start + std::chrono::seconds(o.boundSeconds);
  long long arrived = 0;
  while ((arrived = delivered()) < expected && Clock::now() < deadline) {
    std::this_thread::sleep_for(20ms);
    threadsInBurst = std::max(threadsInBurst, libraryThreads());
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::this_thread::sleep_for(std::chrono::seconds(o.idleSeconds));
  // Taken before the benchmark reads the events back, which costs it memory of its own.
  const long rssPeak = peakRssKiB();

  std::printf("burst of %d trackEvent (+1 launch) against %s\n", o.events, serverName.c_str());
  std::printf("  delivered                 %lld of %lld in %.2f s\n", arrived, expected, seconds);
  std::printf("  events/s end to end       %.0f\n", static_cast<double>(arrived) / seconds);
  std::printf("  connections per host      %s\n", connections().c_str());
  // The events' counters follow the calls' order: the i-th counter is the i-th call.
  if (const Stamps stamps = timestamps(); stamps.size() == callAt.size()) {
    double spread = 0;
    std::size_t i = 0;
    for (const auto& [counter, stamp] : stamps) {
      const double call = wallAtStart + std::chrono::duration<double>(callAt[i++] - start).count();
      spread = std::max(spread, std::abs(stamp - call));
    }
    std::printf("  timestamp - call, max     %.2f ms\n", spread * 1000.0);
  } else {
    std::printf("  timestamp - call, max     (read %zu of %zu events)\n", stamps.size(),
                callAt.size());
  }
  std::printf("  host peak RSS             %.1f MB (%.1f MB before the burst)\n",
              static_cast<double>(rssPeak) / 1024.0, static_cast<double>(rssBefore) / 1024.0);
  std::printf("  trackEvent on the host    median %.0f ns, p99 %.0f ns, mean %.0f ns\n",
              percentile(callNs, 0.5), percentile(callNs, 0.99), hostSeconds * 1e9 / o.events);
  // What a slow call met on the host's thread: the scheduler took the core away (involuntary),
  // it waited for something (voluntary), or it touched a new page of memory (minor faults).
  std::printf(
      "  host thread in the calls   %ld involuntary and %ld voluntary switches, %ld minor "
      "faults; %ld calls over 2 us\n",
      threadAfter.ru_nivcsw - threadBefore.ru_nivcsw, threadAfter.ru_nvcsw - threadBefore.ru_nvcsw,
      threadAfter.ru_minflt - threadBefore.ru_minflt,
      static_cast<long>(
          std::count_if(callNs.begin(), callNs.end(), [](double ns) { return ns > 2000; })));
  std::printf(
      "  library threads           %ld after init (%s); at most %ld during the burst; %ld after %d "
      "s "
      "idle (%s)\n",
      threadsAfterInit, namesAfterInit.c_str(), threadsInBurst, libraryThreads(), o.idleSeconds,
      threadNames().c_str());
  std::printf("  left in the offline cache %zu\n",
              filesIn(root / "app" / "Library" / "Caches" / "QuorvelCache"));
  std::fflush(stdout);
  // The process ends without waiting for the library: what it still holds is kept for the
  // next start, which this run does not make.
  return arrived == expected ? 0 : 1;
}

int runBurst(const Options& o, const fs::path& root) {
  if (o.host) {
    // Another server that answers every request (an HTTP/2 one, say): what arrived is what
    // the library saw answered, read through flush.
    auto& tracker = quorvel::QuorvelTracker::sharedTracker;
    bool settled = false;
    return burst(
        o, root, *o.host, o.caFile, *o.host,
        [&]() -> long long {
          settled = settled || tracker().flush(std::chrono::milliseconds(20));
          return settled && filesIn(root / "app" / "Library" / "Caches" / "QuorvelCache") == 0
                     ? o.events + 1
                     : 0;
        },
        [] { return std::string("(see the server's log)"); }, [] { return Stamps{}; });
  }
  quorvel::bench::Devserver server(o.devserver, root / "server", kApp, kDevKey);
  return burst(
      o, root, server.domain(), server.caFile(), "quorvel-devserver, HTTP/1.1 on loopback",
      [&] { return server.delivered(); },
      [&] {
        const quorvel::Json stats = server.stats();
        return stats.is_object() ? stats["connections"].dump() : std::string("(unknown)");
      },
      [&] { return burstTimestamps(server.database()); });
}

// Requests/s the emulator answers to one client over kept-alive HTTP/1.1 connections:
// launch-sized encrypted bodies posted over `--connections` connections (the library's default
// otherwise) through libcurl's multi interface.
int runEmulator(const Options& o, const fs::path& root) {
  quorvel::bench::Devserver server(o.devserver, root / "emulator", kApp, kDevKey);
  const std::string url = "https://events." + server.domain() +
                          "/api/v4.8/iosevent?app_id=" + kApp + "&buildnumber=4.8.0";
  // A launch-sized payload sealed for the app, so that every request is decrypted.
  quorvel::Json payload = quorvel::Json::object();
  for (int i = 0; i < 60; ++i)
    payload["key" + std::to_string(i)] = std::string(40, static_cast<char>('a' + i % 26));
  const std::string text = payload.dump();
  const quorvel::QuorvelAES128Crypto crypto{
      std::string(kDevKey), quorvel::makePosixPlatform({}).random, quorvel::Log::silent()};
  const auto sealed = crypto.encrypt(quorvel::Bytes(text.begin(), text.end()));
  const std::string body(sealed->begin(), sealed->end());
  CURLM* multi = curl_multi_init();
  const long connections = static_cast<long>(o.connections);
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, connections);
  const int total = o.emulatorRequests;
  int started = 0;
  int finished = 0;
  std::vector<CURL*> handles;
  auto add = [&] {
    CURL* e = curl_easy_init();
    curl_easy_setopt(e, CURLOPT_URL, url.c_str());
    curl_easy_setopt(e, CURLOPT_CAINFO, server.caFile().c_str());
    curl_easy_setopt(e, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
    curl_easy_setopt(
        e, CURLOPT_WRITEFUNCTION,
        +[](char*, std::size_t s, std::size_t n, void*) -> std::size_t { return s * n; });
    curl_multi_add_handle(multi, e);
    ++started;
  };
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  const auto start = Clock::now();
  for (long i = 0; i < connections && started < total; ++i)
    add();
  while (finished < total) {
    int running = 0;
    curl_multi_perform(multi, &running);
    int queued = 0;
    while (CURLMsg* m = curl_multi_info_read(multi, &queued)) {
      if (m->msg != CURLMSG_DONE)
        continue;
      ++finished;
      curl_multi_remove_handle(multi, m->easy_handle);
      curl_easy_cleanup(m->easy_handle);
      if (started < total)
        add();
    }
    if (finished < total)
      curl_multi_poll(multi, nullptr, 0, 100, nullptr);
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  const auto cpu = [](const rusage& u) {
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
  };
  curl_multi_cleanup(multi);
  const quorvel::Json stats = server.stats();
  std::printf("quorvel-devserver alone: %d requests over kept-alive HTTP/1.1 from one client\n",
              total);
  std::printf("  requests/s                %.0f (%.2f s)\n", total / seconds, seconds);
  // What sending alone costs a client (libcurl, TLS, the kernel): the floor under the
  // library's CPU per event, which sends one such request per event.
  std::printf("  client CPU per request    %.1f us\n", (cpu(after) - cpu(before)) * 1e6 / total);
  std::printf("  connections               %s\n",
              stats.is_object() ? stats["connections"].dump().c_str() : "(unknown)");
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  const int rc = quorvel::bench::inScratchFolder("quorvel_burst", [&](const fs::path& root) {
    if (o.emulatorRequests > 0) {
      // The emulator alone runs in a child, so that the host figures of the burst are its own.
      const pid_t child = ::fork();
      if (child == 0)
        std::_Exit(runEmulator(o, root));
      int status = 0;
      ::waitpid(child, &status, 0);
    }
    return o.events > 0 ? runBurst(o, root) : 0;
  });
  std::_Exit(rc);  // the tracker's exit flush is measured by the tests, not here
}
