// Delivery under chaos, judged from outside: host processes send paced events to
// quorvel-devserver while this harness plays a fault on each (see --help), then one clean
// start drains what is left. What was lost and which repeats were avoidable is decided from
// the harness's records (accepted calls, lives, kill times) and the emulator's (what arrived,
// when), never from the library's own bookkeeping. Figures, not a test.
//
// With QUORVEL_CHAOS_LOG set, each life's outbox, exit and answer lines go to host-LIFE.log, the
// lost events and avoidable repeats are listed, and the run's files are kept.
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "Devserver.h"
#include "chaos/Host.h"
#include "chaos/Judge.h"
#include "chaos/Lives.h"

namespace {

namespace fs = std::filesystem;
using quorvel::chaos::Kind;

constexpr const char* kUsage = R"(usage: quorvel_chaos [options]

Host processes send paced trackEvent calls to a local quorvel-devserver; each host lives a
random while under one fault kind, taken in turn from --kinds; then one clean start drains
the rest. Prints a table per fault kind, the launches, every service, and where the
library's deliveryStats() disagree with the emulator after a normal exit.

  --kills N              hosts (lives) to run, most ended by SIGKILL (200)
  --kinds LIST           fault kinds in turn, comma separated (all):
                           kill     SIGKILL at a random moment, the emulator offline or late
                           5xx      the emulator answers 503 for part of the life
                           429      the emulator answers 429 with Retry-After: 1 for a part
                           exit     a normal exit with a short exit flush
                           disk     the disk fills mid-life (RLIMIT_FSIZE) and frees again
                           corrupt  a few pages of the outbox overwritten after the kill
                           fork     the host forks a worker (no exec) that outlives it
                           second   a second host on the same directory, overlapping
  --disk-full-trials N   fresh installs whose first launch meets a full disk (0)
  --rate N               events per second while a host lives (1500)
  --min-life MS, --max-life MS   a host's life (100, 900)
  --exit-flush MS        the exit flush of normally exiting hosts (300)
  --margin-ms MS         an answer's transit back to the host (20)
  --bound SECONDS        the whole run's bound; lives stop at two thirds of it (300)
  --drain-idle SECONDS   the clean start gives up after this long without an arrival (20);
                         an event lost in a kill's window is waited for that long
  --seed N               (1)
  --devserver PATH       the emulator's binary
  --strict 1             exit 1 on a loss (beyond overwritten stores), an avoidable repeat,
                         an install's first launch not arriving once, or a disagreement
  --help                 this text
)";

struct Options {
  int lives = 200;
  std::vector<Kind> kinds = {Kind::kill,     Kind::burst5xx, Kind::retry429, Kind::exit,
                             Kind::diskFull, Kind::corrupt,  Kind::fork,     Kind::second};
  int diskFullTrials = 0;
  quorvel::chaos::LifeSettings life;
  double marginMs = 20;
  int boundSeconds = 300;
  int drainIdleSeconds = 20;
  unsigned seed = 1;
  bool strict = false;
  std::string devserver = QUORVEL_DEVSERVER_BIN;
};

std::vector<Kind> parseKinds(const std::string& list) {
  static const std::vector<std::pair<std::string, Kind>> names = {
      {"kill", Kind::kill}, {"5xx", Kind::burst5xx},  {"429", Kind::retry429},
      {"exit", Kind::exit}, {"disk", Kind::diskFull}, {"corrupt", Kind::corrupt},
      {"fork", Kind::fork}, {"second", Kind::second}};
  std::vector<Kind> out;
  std::stringstream in(list);
  std::string word;
  while (std::getline(in, word, ',')) {
    const auto it =
        std::find_if(names.begin(), names.end(), [&](const auto& n) { return n.first == word; });
    if (it == names.end())
      throw std::invalid_argument("unknown fault kind: " + word);
    out.push_back(it->second);
  }
  if (out.empty())
    throw std::invalid_argument("no fault kind");
  return out;
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--help" || flag == "-h")
      throw std::logic_error("help");
    if (i + 1 >= argc)
      throw std::invalid_argument(flag + " needs a value");
    const std::string value = argv[i + 1];
    if (flag == "--kills")
      o.lives = std::stoi(value);
    else if (flag == "--kinds")
      o.kinds = parseKinds(value);
    else if (flag == "--rate")
      o.life.rate = std::max(1, std::stoi(value));
    else if (flag == "--min-life")
      o.life.minLifeMs = std::stoi(value);
    else if (flag == "--max-life")
      o.life.maxLifeMs = std::stoi(value);
    else if (flag == "--exit-flush")
      o.life.exitFlushMs = std::stoi(value);
    else if (flag == "--margin-ms")
      o.marginMs = std::stod(value);
    else if (flag == "--bound")
      o.boundSeconds = std::stoi(value);
    else if (flag == "--drain-idle")
      o.drainIdleSeconds = std::max(1, std::stoi(value));
    else if (flag == "--seed")
      o.seed = static_cast<unsigned>(std::stoul(value));
    else if (flag == "--devserver")
      o.devserver = value;
    else if (flag == "--disk-full-trials")
      o.diskFullTrials = std::stoi(value);
    else if (flag == "--strict")
      o.strict = value == "1";
    else
      throw std::invalid_argument("unknown option " + flag);
  }
  o.life.maxLifeMs = std::max(o.life.maxLifeMs, o.life.minLifeMs);
  return o;
}

bool verbose() {
  return std::getenv("QUORVEL_CHAOS_LOG") != nullptr;
}

int runHarness(const Options& o, const fs::path& root) {
  // Forked workers outlive their parent: they become this process's children, collected here.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  quorvel::bench::Devserver server(o.devserver, root / "server", quorvel::chaos::kApp,
                                   quorvel::chaos::kDevKey);
  quorvel::chaos::Lives lives(o.life, server, root, o.seed);
  lives.judgement().marginMs = o.marginMs;
  const auto started = std::chrono::steady_clock::now();
  const auto livesUntil = started + std::chrono::seconds(o.boundSeconds * 2 / 3);
  int ran = 0;
  for (; ran < o.lives && std::chrono::steady_clock::now() < livesUntil; ++ran)
    lives.run(o.kinds[static_cast<std::size_t>(ran) % o.kinds.size()]);
  for (int t = 0; t < o.diskFullTrials && std::chrono::steady_clock::now() < livesUntil; ++t)
    lives.runFullAtLaunch(t);

  const auto accepted = quorvel::chaos::readAccepted((root / "accepted").string());
  std::vector<long long> expected;
  for (const auto& [seq, ms] : accepted)
    expected.push_back(seq);
  const auto left =
      std::chrono::seconds(o.boundSeconds) -
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started);
  const std::chrono::seconds drainIdle(o.drainIdleSeconds);
  lives.drain(expected, std::max(left, drainIdle), drainIdle);
  const int workersLeft = lives.stopWorkers();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  std::printf(
      "chaos: %d lives of %zu fault kinds in turn (%d-%d ms, %d events/s)%s, %d "
      "first launches on a full disk, then one clean start; %.0f s\n",
      ran, o.kinds.size(), o.life.minLifeMs, o.life.maxLifeMs, o.life.rate,
      ran < o.lives ? " (cut short by --bound)" : "", o.diskFullTrials, seconds);
  if (workersLeft > 0)
    std::printf("  forked workers still running at the end (killed): %d\n", workersLeft);
  const bool clean = quorvel::chaos::judge(lives.judgement(), lives.log(), accepted, verbose());
  std::fflush(stdout);
  quorvel::chaos::trimMappedFiles(root);
  return !o.strict || (clean && workersLeft == 0) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--host")
    return quorvel::chaos::runHost(quorvel::chaos::HostArgs::fromWords(argc, argv, 2));
  Options o;
  try {
    o = parse(argc, argv);
  } catch (const std::logic_error& e) {
    const bool help = std::string(e.what()) == "help";
    if (!help)
      std::fprintf(stderr, "quorvel_chaos: %s\n", e.what());
    std::fputs(kUsage, help ? stdout : stderr);
    return help ? 0 : 2;
  }
  return quorvel::bench::inScratchFolder(
      "quorvel_chaos", [&](const fs::path& root) { return runHarness(o, root); },
      [](int rc) { return rc != 0 || verbose(); });
}
