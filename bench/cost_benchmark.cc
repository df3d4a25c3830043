// What the library costs its host, against quorvel-devserver on loopback: a lone trackEvent
// into an idle library on the host's thread, the library's wake-ups while idle and while
// taking lone calls, the CPU of the whole process per delivered event in a burst, the memory
// that creating the tracker and one launch add, the burst's peak memory, and the CPU spent
// and memory held after the burst drained.
//
//   quorvel_cost [--idle SECONDS] [--calls N] [--gap-ms MS] [--spaced N] [--spaced-gap-ms MS]
//                [--events N] [--after SECONDS] [--bound SECONDS] [--devserver PATH] [--quick]
//                [--help]
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

#include "Devserver.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* kApp = "123456789";
constexpr const char* kDevKey = "COST-DEV-KEY-0001";

constexpr const char* kUsage =
    "usage: quorvel_cost [options]\n"
    "  --idle SECONDS     idle time before the lone calls (10)\n"
    "  --calls N          lone trackEvent calls (100)\n"
    "  --gap-ms MS        time between two lone calls (50)\n"
    "  --spaced N         lone calls each after the library went idle again (5)\n"
    "  --spaced-gap-ms MS time before each of those (2000)\n"
    "  --events N         calls in the burst (10000)\n"
    "  --after SECONDS    time watched after the burst drained (10)\n"
    "  --bound SECONDS    longest wait for the burst's delivery (300)\n"
    "  --devserver PATH   the emulator to run (the one built with this benchmark)\n"
    "  --quick            a smoke run: --idle 1 --calls 10 --gap-ms 20 --spaced 1 --events 300\n"
    "                     --after 2\n"
    "  --help             this text\n";

struct Options {
  int idleSeconds = 10;
  int calls = 100;
  int gapMs = 50;
  int spaced = 5;
  int spacedGapMs = 2000;
  int events = 10'000;
  int afterSeconds = 10;
  int boundSeconds = 300;
  std::string devserver = QUORVEL_DEVSERVER_BIN;
};

std::optional<Options> parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--help")
      return std::nullopt;
    if (flag == "--quick") {
      o.idleSeconds = 1;
      o.calls = 10;
      o.gapMs = 20;
      o.spaced = 1;
      o.events = 300;
      o.afterSeconds = 2;
      continue;
    }
    if (i + 1 >= argc)
      return std::nullopt;
    const std::string value = argv[++i];
    if (flag == "--idle")
      o.idleSeconds = std::stoi(value);
    else if (flag == "--calls")
      o.calls = std::stoi(value);
    else if (flag == "--gap-ms")
      o.gapMs = std::stoi(value);
    else if (flag == "--spaced")
      o.spaced = std::stoi(value);
    else if (flag == "--spaced-gap-ms")
      o.spacedGapMs = std::stoi(value);
    else if (flag == "--events")
      o.events = std::stoi(value);
    else if (flag == "--after")
      o.afterSeconds = std::stoi(value);
    else if (flag == "--bound")
      o.boundSeconds = std::stoi(value);
    else if (flag == "--devserver")
      o.devserver = value;
    else
      return std::nullopt;
  }
  if (o.calls < 1 || o.events < 0 || o.idleSeconds < 0 || o.afterSeconds < 1 || o.gapMs < 0 ||
      o.spaced < 0 || o.spacedGapMs < 0)
    return std::nullopt;
  return o;
}

class NullLog final : public quorvel::platform::SystemLog {
 public:
  void write(std::string_view) noexcept override {}
};

// A field of /proc/self/status in KiB (VmRSS, VmHWM).
long statusKiB(const std::string& field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind(field + ":", 0) == 0)
      return std::atol(line.c_str() + field.size() + 1);
  return -1;
}

// The peak RSS starts again from the current RSS (Linux 4.0 and later).
bool resetPeakRss() {
  std::ofstream out("/proc/self/clear_refs");
  out << "5";
  out.flush();
  return static_cast<bool>(out);
}

double cpuSeconds(const rusage& u) {
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// CPU and context switches of the library's threads: the whole process (threads that ended
// included) less the thread running the benchmark. A parked thread that is woken switches
// once when it parks again, so the switches count its wake-ups.
struct LibraryUse {
  double cpu = 0;
  long switches = 0;

  static LibraryUse now() {
    rusage self{};
    rusage thread{};
    getrusage(RUSAGE_SELF, &self);
    getrusage(RUSAGE_THREAD, &thread);
    return {cpuSeconds(self) - cpuSeconds(thread),
            (self.ru_nvcsw + self.ru_nivcsw) - (thread.ru_nvcsw + thread.ru_nivcsw)};
  }
  LibraryUse operator-(const LibraryUse& earlier) const {
    return {cpu - earlier.cpu, switches - earlier.switches};
  }
};

long libraryThreads() {
  std::error_code ec;
  return static_cast<long>(std::distance(fs::directory_iterator("/proc/self/task", ec), {})) - 1;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty())
    return 0;
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

// Waits until `count` events arrived or the bound passed; returns what arrived.
long long awaitDelivered(const quorvel::bench::Devserver& server, long long count,
                         Clock::time_point deadline) {
  long long arrived = 0;
  while ((arrived = server.delivered()) < count && Clock::now() < deadline)
    std::this_thread::sleep_for(20ms);
  return arrived;
}

struct Lone {
  std::vector<double> ns;
  LibraryUse idle;  // while idling before the calls, less its first second (the launch's end)
  long idleThreads = 0;
  LibraryUse calls;  // from the first call to a gap after the last
};

// The machine's own floor under a lone call: the same timing after the same gaps around a call
// that only returns, and around one that allocates and frees 64 bytes. After a sleep, a call
// pays for the caches and address translations the sleep lost, whatever it does.
[[gnu::noinline]] void doNothing() {
  asm volatile("");
}
[[gnu::noinline]] void allocateAndFree() {
  void* volatile block = std::malloc(64);
  std::free(block);
}
std::pair<double, double> loneCallFloor(const Options& o) {
  std::vector<double> empty;
  std::vector<double> allocation;
  for (int i = 0; i < std::min(o.calls, 30); ++i) {
    for (auto [call, into] : {std::pair{&doNothing, &empty}, {&allocateAndFree, &allocation}}) {
      const auto before = Clock::now();
      call();
      into->push_back(std::chrono::duration<double, std::nano>(Clock::now() - before).count());
      std::this_thread::sleep_for(std::chrono::milliseconds(o.gapMs));
    }
  }
  return {percentile(empty, 0.5), percentile(allocation, 0.5)};
}

// Each call after the library's threads went idle again (the intake stops watching 1 s after
// the last call): what a host that reports now and then pays.
std::vector<double> spacedCalls(const Options& o, quorvel::QuorvelTracker& tracker) {
  std::vector<double> ns;
  const std::optional<std::string> value;
  for (int i = 0; i < o.spaced; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(o.spacedGapMs));
    const auto before = Clock::now();
    tracker.trackEvent("spaced_event", value);
    ns.push_back(std::chrono::duration<double, std::nano>(Clock::now() - before).count());
  }
  return ns;
}

Lone loneCalls(const Options& o, quorvel::QuorvelTracker& tracker) {
  Lone lone;
  std::this_thread::sleep_for(std::chrono::seconds(std::min(o.idleSeconds, 1)));
  const auto idleStart = LibraryUse::now();
  std::this_thread::sleep_for(std::chrono::seconds(std::max(o.idleSeconds - 1, 0)));
  const auto callsStart = LibraryUse::now();
  lone.idle = callsStart - idleStart;
  lone.idleThreads = libraryThreads();
  const std::optional<std::string> value;
  for (int i = 0; i < o.calls; ++i) {
    const auto before = Clock::now();
    tracker.trackEvent("lone_event", value);
    lone.ns.push_back(std::chrono::duration<double, std::nano>(Clock::now() - before).count());
    std::this_thread::sleep_for(std::chrono::milliseconds(o.gapMs));
  }
  lone.calls = LibraryUse::now() - callsStart;
  return lone;
}

struct Burst {
  std::vector<double> ns;
  long long arrived = 0;
  double seconds = 0;
  double processCpu = 0;  // all threads, first call to last answer
  double pollCpu = 0;     // of which the benchmark's thread spent waiting and counting
  long peakKiB = -1;
  long peakAnonKiB = 0;  // the largest anonymous part seen at the polls
  long maxThreads = 0;
};

Burst burst(const Options& o, quorvel::QuorvelTracker& tracker,
            const quorvel::bench::Devserver& server, long long deliveredBefore) {
  Burst b;
  b.ns.reserve(static_cast<std::size_t>(o.events));
  const bool peakReset = resetPeakRss();
  const std::optional<std::string> value("9.99");
  rusage processBefore{};
  getrusage(RUSAGE_SELF, &processBefore);
  const auto start = Clock::now();
  for (int i = 0; i < o.events; ++i) {
    const auto before = Clock::now();
    tracker.trackEvent("burst_event", value);
    b.ns.push_back(std::chrono::duration<double, std::nano>(Clock::now() - before).count());
  }
  rusage pollBefore{};
  getrusage(RUSAGE_THREAD, &pollBefore);
  const auto deadline = start + std::chrono::seconds(o.boundSeconds);
  const long long expected = deliveredBefore + o.events;
  while ((b.arrived = server.delivered()) < expected && Clock::now() < deadline) {
    b.maxThreads = std::max(b.maxThreads, libraryThreads());
    b.peakAnonKiB = std::max(b.peakAnonKiB, statusKiB("RssAnon"));
    std::this_thread::sleep_for(20ms);
  }
  b.arrived -= deliveredBefore;
  b.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  rusage processAfter{};
  rusage pollAfter{};
  getrusage(RUSAGE_SELF, &processAfter);
  getrusage(RUSAGE_THREAD, &pollAfter);
  b.processCpu = cpuSeconds(processAfter) - cpuSeconds(processBefore);
  b.pollCpu = cpuSeconds(pollAfter) - cpuSeconds(pollBefore);
  b.peakKiB = peakReset ? statusKiB("VmHWM") : -1;
  return b;
}

int run(const Options& o, const fs::path& root) {
  quorvel::bench::Devserver server(o.devserver, root / "server", kApp, kDevKey);
  const long rssStart = statusKiB("VmRSS");
  const long anonStart = statusKiB("RssAnon");
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.quorvel.cost";
  options.dataDirectory = (root / "app").string();
  options.keychainDirectory = (root / "keychain").string();
  options.extraCAFile = server.caFile();
  quorvel::Platform platform = quorvel::makePosixPlatform(options);
  platform.systemLog = std::make_shared<NullLog>();
  quorvel::installPlatform(platform);
  auto& tracker = quorvel::QuorvelTracker::sharedTracker();
  tracker.setQuorvelDevKey(std::string(kDevKey));
  tracker.setAppleAppID(std::string(kApp));
  tracker.setHost(server.domain());
  tracker.setDisableIAdTracking(true);
  tracker.trackAppLaunch();
  const auto bound = std::chrono::seconds(o.boundSeconds);
  if (awaitDelivered(server, 1, Clock::now() + bound) < 1) {
    std::fprintf(stderr, "quorvel_cost: the launch did not arrive\n");
    return 1;
  }
  const long rssLaunched = statusKiB("VmRSS");
  const long anonLaunched = statusKiB("RssAnon");

  const Lone lone = loneCalls(o, tracker);
  const auto [emptyFloor, allocationFloor] = loneCallFloor(o);
  const std::vector<double> spaced = spacedCalls(o, tracker);
  const long long afterLone = awaitDelivered(server, 1 + o.calls + o.spaced,
                                             Clock::now() + std::chrono::seconds(o.boundSeconds));
  const Burst b = burst(o, tracker, server, afterLone);

  // After the burst drained: the library's CPU second by second.
  std::vector<LibraryUse> afterSteps;
  auto mark = LibraryUse::now();
  for (int s = 0; s < o.afterSeconds; ++s) {
    std::this_thread::sleep_for(1s);
    const auto now = LibraryUse::now();
    afterSteps.push_back(now - mark);
    mark = now;
  }
  const long rssDrained = statusKiB("VmRSS");
  const long anonDrained = statusKiB("RssAnon");
  LibraryUse rest;
  for (std::size_t s = 1; s < afterSteps.size(); ++s) {
    rest.cpu += afterSteps[s].cpu;
    rest.switches += afterSteps[s].switches;
  }

  std::printf("quorvel_cost against quorvel-devserver (HTTP/1.1 on loopback)\n");
  std::printf("  RSS added by the tracker + one launch   %+.1f MB (%.1f -> %.1f MB)\n",
              static_cast<double>(rssLaunched - rssStart) / 1024.0,
              static_cast<double>(rssStart) / 1024.0, static_cast<double>(rssLaunched) / 1024.0);
  // The rest of the RSS is pages of the shared libraries' files touched (code and read-only
  // data: clean, shared with other processes, given back under memory pressure).
  std::printf("    of which anonymous (the heap, stacks)  %+.1f MB (%.1f -> %.1f MB)\n",
              static_cast<double>(anonLaunched - anonStart) / 1024.0,
              static_cast<double>(anonStart) / 1024.0, static_cast<double>(anonLaunched) / 1024.0);
  std::printf(
      "  idle %d s, after its first: wake-ups   %ld (CPU %.1f ms); library threads at its end "
      "%ld\n",
      o.idleSeconds, lone.idle.switches, std::max(0.0, lone.idle.cpu) * 1e3, lone.idleThreads);
  std::printf(
      "  lone trackEvent (%d calls %d ms apart)  median %.0f ns, p99 %.0f ns, max %.0f ns\n",
      o.calls, o.gapMs, percentile(lone.ns, 0.5), percentile(lone.ns, 0.99),
      percentile(lone.ns, 1.0));
  std::printf(
      "    the same around an empty call         median %.0f ns; a malloc and free, %.0f ns\n",
      emptyFloor, allocationFloor);
  std::printf(
      "  library wake-ups per lone call          %.2f (CPU %.1f us per call); %lld of %d "
      "lone and spaced calls delivered\n",
      static_cast<double>(lone.calls.switches) / o.calls, lone.calls.cpu * 1e6 / o.calls,
      afterLone - 1, o.calls + o.spaced);
  if (o.spaced > 0)
    std::printf("  trackEvent after %d ms idle (%d calls)  median %.0f ns, max %.0f ns\n",
                o.spacedGapMs, o.spaced, percentile(spaced, 0.5), percentile(spaced, 1.0));
  if (o.events > 0) {
    std::printf("  burst of %d: delivered                %lld in %.2f s, %.0f events/s\n", o.events,
                b.arrived, b.seconds, static_cast<double>(b.arrived) / b.seconds);
    std::printf("  burst trackEvent on the host            median %.0f ns, p99 %.0f ns\n",
                percentile(b.ns, 0.5), percentile(b.ns, 0.99));
    const double perEvent = b.arrived > 0 ? 1e6 / static_cast<double>(b.arrived) : 0;
    std::printf(
        "  process CPU per delivered event         %.1f us (%.1f us less the benchmark's "
        "polling)\n",
        b.processCpu * perEvent, (b.processCpu - b.pollCpu) * perEvent);
    if (b.peakKiB >= 0)
      std::printf("  peak RSS in the burst                   %.1f MB (anonymous at most %.1f MB)\n",
                  static_cast<double>(b.peakKiB) / 1024.0,
                  static_cast<double>(b.peakAnonKiB) / 1024.0);
    else
      std::printf("  peak RSS in the burst                   (cannot reset the peak here)\n");
    std::printf("  library threads in the burst            at most %ld\n", b.maxThreads);
  }
  std::printf(
      "  after the drain: CPU in the first second %.1f ms (%ld wake-ups), in the next %d s "
      "%.1f ms (%ld wake-ups); threads alive %ld\n",
      std::max(0.0, afterSteps.front().cpu) * 1e3, afterSteps.front().switches, o.afterSeconds - 1,
      std::max(0.0, rest.cpu) * 1e3, rest.switches, libraryThreads());
  std::printf("  RSS %d s after the drain                 %.1f MB (anonymous %.1f MB)\n",
              o.afterSeconds, static_cast<double>(rssDrained) / 1024.0,
              static_cast<double>(anonDrained) / 1024.0);
  std::fflush(stdout);
  return b.arrived == o.events && afterLone == 1 + o.calls + o.spaced ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const auto options = parse(argc, argv);
  if (!options) {
    std::fputs(kUsage, stdout);
    const bool asked = std::any_of(argv + 1, argv + argc,
                                   [](const char* a) { return std::string(a) == "--help"; });
    return asked ? 0 : 2;
  }
  const int rc = quorvel::bench::inScratchFolder(
      "quorvel_cost", [&](const fs::path& root) { return run(*options, root); });
  std::_Exit(rc);  // the exit flush is not what this measures
}
