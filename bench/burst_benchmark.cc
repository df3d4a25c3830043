// End-to-end figures of a burst: a host calls trackEvent N times in a loop; the library
// delivers through the real stack (payload, cipher, libcurl, TLS) to quorvel-devserver on
// loopback. Prints what the service received and when, the connections it accepted per
// host, the host's peak resident memory, the host thread's cost per call, and what was left
// in the offline cache. Also measures the emulator alone from one kept-alive client.
//
//   quorvel_burst [--events N] [--devserver PATH] [--emulator-requests N] [--bound SECONDS]
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
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>

#include <quorvel/Json.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

#include "common/QuorvelAES128Crypto.h"
#include "log/Log.h"

extern char** environ;

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
  std::string devserver = QUORVEL_DEVSERVER_BIN;
  std::optional<std::string> host;  // another server instead of quorvel-devserver
  std::string caFile;
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const std::string value = argv[i + 1];
    if (flag == "--events")
      o.events = std::stoi(value);
    else if (flag == "--emulator-requests")
      o.emulatorRequests = std::stoi(value);
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

// quorvel-devserver as a child process, stopped with SIGTERM at the end.
class Devserver {
 public:
  Devserver(const std::string& binary, const fs::path& dir) : dir_(dir) {
    const std::vector<std::string> args = {binary,
                                           "--port",
                                           "0",
                                           "--data-dir",
                                           dir.string(),
                                           "--app",
                                           std::string(kApp) + "=" + kDevKey,
                                           "--quiet"};
    std::vector<char*> argv;
    for (const auto& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string log = (dir.parent_path() / "devserver.log").string();
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0)
      throw std::runtime_error("cannot start " + binary);
    posix_spawn_file_actions_destroy(&actions);
    const auto deadline = Clock::now() + 30s;
    while (!fs::exists(dir / "server.json")) {
      if (Clock::now() > deadline)
        throw std::runtime_error("quorvel-devserver did not start");
      std::this_thread::sleep_for(20ms);
    }
    std::ifstream in(dir / "server.json");
    state_ = quorvel::Json::parse(in);
  }
  ~Devserver() {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  std::string domain() const { return state_["service_domain"].get<std::string>(); }
  std::string caFile() const { return state_["ca_file"].get<std::string>(); }
  int port() const { return state_["port"].get<int>(); }
  int adminPort() const { return state_["admin_port"].get<int>(); }
  std::string database() const { return state_["database"].get<std::string>(); }

  // Tracking requests recorded with an answer of 200.
  long long delivered() const {
    sqlite3* db = nullptr;
    long long count = -1;
    if (sqlite3_open_v2(database().c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
      sqlite3_busy_timeout(db, 2000);
      sqlite3_stmt* s = nullptr;
      if (sqlite3_prepare_v2(db,
                             "SELECT count(*) FROM requests WHERE service IN ('t','events') "
                             "AND status = 200",
                             -1, &s, nullptr) == SQLITE_OK &&
          sqlite3_step(s) == SQLITE_ROW)
        count = sqlite3_column_int64(s, 0);
      sqlite3_finalize(s);
    }
    sqlite3_close(db);
    return count;
  }

  quorvel::Json stats() const {
    std::string body;
    CURL* e = curl_easy_init();
    const std::string url = "http://127.0.0.1:" + std::to_string(adminPort()) + "/stats";
    curl_easy_setopt(e, CURLOPT_URL, url.c_str());
    curl_easy_setopt(
        e, CURLOPT_WRITEFUNCTION,
        +[](char* d, std::size_t s, std::size_t n, void* u) -> std::size_t {
          static_cast<std::string*>(u)->append(d, s * n);
          return s * n;
        });
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &body);
    curl_easy_perform(e);
    curl_easy_cleanup(e);
    return quorvel::Json::parse(body, nullptr, false);
  }

 private:
  fs::path dir_;
  pid_t pid_ = -1;
  quorvel::Json state_;
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

double percentile(std::vector<double> values, double p) {
  if (values.empty())
    return 0;
  std::sort(values.begin(), values.end());
  const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1));
  return values[index];
}

// The burst itself, against `domain`; `delivered` tells how many requests arrived.
int burst(const Options& o, const fs::path& root, const std::string& domain,
          const std::string& caFile, const std::string& serverName,
          const std::function<long long()>& delivered,
          const std::function<std::string()>& connections) {
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.quorvel.burst";
  options.dataDirectory = (root / "app").string();
  options.keychainDirectory = (root / "keychain").string();
  options.extraCAFile = caFile;
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

  std::vector<double> callNs;
  callNs.reserve(static_cast<std::size_t>(o.events));
  const std::optional<std::string> value("9.99");
  const auto start = Clock::now();
  for (int i = 0; i < o.events; ++i) {
    const auto before = Clock::now();
    tracker.trackEvent("burst_event", value);
    callNs.push_back(std::chrono::duration<double, std::nano>(Clock::now() - before).count());
  }
  const double hostSeconds = std::chrono::duration<double>(Clock::now() - start).count();
  const long long expected = o.events + 1;  // the launch too
  const auto deadline = start + std::chrono::seconds(o.boundSeconds);
  long long arrived = 0;
  while ((arrived = delivered()) < expected && Clock::now() < deadline)
    std::this_thread::sleep_for(20ms);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

  std::printf("burst of %d trackEvent (+1 launch) against %s\n", o.events, serverName.c_str());
  std::printf("  delivered                 %lld of %lld in %.2f s\n", arrived, expected, seconds);
  std::printf("  events/s end to end       %.0f\n", static_cast<double>(arrived) / seconds);
  std::printf("  connections per host      %s\n", connections().c_str());
  std::printf("  host peak RSS             %.1f MB (%.1f MB before the burst)\n",
              static_cast<double>(peakRssKiB()) / 1024.0, static_cast<double>(rssBefore) / 1024.0);
  std::printf("  trackEvent on the host    median %.0f ns, p99 %.0f ns, mean %.0f ns\n",
              percentile(callNs, 0.5), percentile(callNs, 0.99), hostSeconds * 1e9 / o.events);
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
        [] { return std::string("(see the server's log)"); });
  }
  Devserver server(o.devserver, root / "server");
  return burst(
      o, root, server.domain(), server.caFile(), "quorvel-devserver, HTTP/1.1 on loopback",
      [&] { return server.delivered(); },
      [&] {
        const quorvel::Json stats = server.stats();
        return stats.is_object() ? stats["connections"].dump() : std::string("(unknown)");
      });
}

// Requests/s the emulator answers to one client over kept-alive HTTP/1.1 connections:
// launch-sized encrypted bodies posted over 6 connections through libcurl's multi interface.
int runEmulator(const Options& o, const fs::path& root) {
  Devserver server(o.devserver, root / "emulator");
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
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
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
  const auto start = Clock::now();
  for (int i = 0; i < 6 && started < total; ++i)
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
  curl_multi_cleanup(multi);
  const quorvel::Json stats = server.stats();
  std::printf("quorvel-devserver alone: %d requests over kept-alive HTTP/1.1 from one client\n",
              total);
  std::printf("  requests/s                %.0f (%.2f s)\n", total / seconds, seconds);
  std::printf("  connections               %s\n",
              stats.is_object() ? stats["connections"].dump().c_str() : "(unknown)");
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  char pattern[] = "/tmp/quorvel-burst-XXXXXX";
  const char* made = ::mkdtemp(pattern);
  if (made == nullptr) {
    std::perror("mkdtemp");
    return 2;
  }
  const fs::path root = made;
  int rc = 0;
  try {
    if (o.emulatorRequests > 0) {
      // The emulator alone runs in a child, so that the host figures of the burst are its own.
      const pid_t child = ::fork();
      if (child == 0)
        std::_Exit(runEmulator(o, root));
      int status = 0;
      ::waitpid(child, &status, 0);
    }
    if (o.events > 0)
      rc = runBurst(o, root);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quorvel_burst: %s\n", e.what());
    rc = 2;
  }
  std::error_code ignored;
  fs::remove_all(root, ignored);
  std::_Exit(rc);  // the tracker's exit flush is measured by the tests, not here
}
