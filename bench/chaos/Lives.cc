#include "Lives.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

namespace quorvel::chaos {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string slurp(const fs::path& file) {
  std::ifstream in(file);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// The soft file size limit of another process of ours: 0 fills its disk, infinity frees it.
void setFileSizeLimit(pid_t pid, rlim_t soft) {
  const rlimit limit{soft, RLIM_INFINITY};
  ::prlimit(pid, RLIMIT_FSIZE, &limit, nullptr);
}

}  // namespace

Lives::Lives(const LifeSettings& settings, quorvel::bench::Devserver& server, fs::path root,
             unsigned seed)
    : settings_(settings),
      server_(server),
      root_(std::move(root)),
      random_(seed),
      log_(server.database()) {
  fs::create_directories(root_ / "accepted");
}

HostArgs Lives::hostArgs(std::size_t index) const {
  HostArgs a;
  a.root = root_;
  a.accepted = root_ / "accepted";
  a.domain = server_.domain();
  a.caFile = server_.caFile();
  a.firstSeq = static_cast<long long>(index + 1) * kSeqRange;
  a.rate = settings_.rate;
  a.tag = std::to_string(index);
  return a;
}

int Lives::lifeMs() {
  return std::uniform_int_distribution<int>(settings_.minLifeMs, settings_.maxLifeMs)(random_);
}

void Lives::sleepMs(int ms) const {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

Lives::Started Lives::start(Kind kind, HostArgs args) {
  Life life;
  life.kind = kind;
  life.firstSeq = args.firstSeq;
  life.start = wallSeconds();
  const pid_t pid = spawnHost(args);
  if (pid < 0)
    throw std::runtime_error("cannot start the host");
  judgement_.lives.push_back(life);
  return {judgement_.lives.size() - 1, pid};
}

void Lives::kill(const Started& s) {
  judgement_.lives[s.index].end = wallSeconds();
  judgement_.lives[s.index].killed = true;
  ::kill(s.pid, SIGKILL);
  int status = 0;
  ::waitpid(s.pid, &status, 0);
}

// The end of a host that exits is noted as its exit comes, not at the next of a few polls: a
// late note would judge a repeat avoidable whose first copy's answer came as the host ended.
void Lives::stop(const Started& s, const HostArgs& args) {
  const int exited = static_cast<int>(::syscall(SYS_pidfd_open, s.pid, 0));
  { std::ofstream(args.root / ("stop-" + args.tag)) << "stop\n"; }
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  int status = 0;
  while (::waitpid(s.pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      std::fprintf(stderr, "quorvel_chaos: a host did not exit within 10 s of its stop\n");
      if (exited >= 0)
        ::close(exited);
      kill(s);
      return;
    }
    if (pollfd p{exited, POLLIN, 0}; exited < 0 || ::poll(&p, 1, 100) < 0)
      sleepMs(5);
  }
  if (exited >= 0)
    ::close(exited);
  auto& life = judgement_.lives[s.index];
  life.end = wallSeconds();
  life.stats = slurp(args.root / ("stats-" + args.tag + ".json"));
}

void Lives::setDelay(int ms) {
  server_.fault("/faults/delay?service=*&ms=" + std::to_string(ms));
  judgement_.delays.emplace_back(wallSeconds(), ms);
}

// Today's network weather before a killed life: offline for a while, late answers, back to
// normal, or as it was. None answers an error status.
void Lives::playNetworkFault() {
  switch (std::uniform_int_distribution<int>(0, 5)(random_)) {
    case 0:
      server_.fault("/faults/offline?seconds=" +
                    std::to_string(std::uniform_int_distribution<int>(1, 2)(random_)));
      break;
    case 1:
      setDelay(std::uniform_int_distribution<int>(50, 1500)(random_));
      break;
    case 2:
      server_.fault("/faults/clear");
      judgement_.delays.emplace_back(wallSeconds(), 0);
      break;
    default:
      break;
  }
}

void Lives::serviceFault(int code, int retryAfter) {
  std::string path = "/faults/status?service=*&code=" + std::to_string(code);
  if (retryAfter >= 0)
    path += "&retry_after=" + std::to_string(retryAfter);
  server_.fault(path);
}

// A few pages of the outbox's database overwritten while no host runs (the header page
// spared unless it is the only one): what a bad sector or a stray write leaves.
void Lives::corruptStore() {
  const fs::path file = corruptRoot() / "app/Library/QuorvelOutbox.sqlite";
  std::error_code ec;
  const auto size = fs::file_size(file, ec);
  if (ec || size < 512)
    return;
  std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
  unsigned char header[18] = {};
  f.read(reinterpret_cast<char*>(header), sizeof header);
  std::size_t pageSize = (static_cast<std::size_t>(header[16]) << 8) | header[17];
  pageSize = pageSize == 1 ? 65536 : (pageSize < 512 ? 4096 : pageSize);
  const std::size_t pages = std::max<std::size_t>(1, size / pageSize);
  std::uniform_int_distribution<std::size_t> pick(pages > 1 ? 1 : 0, pages - 1);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int n = 0; n < 3; ++n) {
    std::string junk(pageSize, '\0');
    for (auto& c : junk)
      c = static_cast<char>(byte(random_));
    f.seekp(static_cast<std::streamoff>(pick(random_) * pageSize));
    f.write(junk.data(), static_cast<std::streamsize>(junk.size()));
  }
  f.flush();
  judgement_.corruptions.push_back(wallSeconds());
}

void Lives::run(Kind kind) {
  if (kind == Kind::kill) {
    playNetworkFault();
  } else {
    server_.fault("/faults/clear");
    judgement_.delays.emplace_back(wallSeconds(), 0);
  }
  HostArgs args = hostArgs(judgement_.lives.size());
  if (kind == Kind::corrupt) {
    args.root = corruptRoot();
    fs::create_directories(args.root);
  }
  if (kind == Kind::exit)
    args.exitFlushMs = settings_.exitFlushMs;
  if (kind == Kind::fork)
    args.forkChildMs = std::uniform_int_distribution<int>(500, 3000)(random_);
  const int ms = lifeMs();
  const Started s = start(kind, args);
  const int part = std::uniform_int_distribution<int>(ms / 4, ms * 3 / 4)(random_);
  switch (kind) {
    case Kind::burst5xx:
    case Kind::retry429:
      serviceFault(kind == Kind::burst5xx ? 503 : 429, kind == Kind::burst5xx ? -1 : 1);
      sleepMs(part);
      serviceFault(0, -1);
      sleepMs(ms - part);
      break;
    case Kind::diskFull:
      sleepMs(part / 2);
      judgement_.lives[s.index].fullFrom = wallSeconds();
      setFileSizeLimit(s.pid, 0);
      sleepMs(part);
      setFileSizeLimit(s.pid, RLIM_INFINITY);
      judgement_.lives[s.index].fullUntil = wallSeconds();
      sleepMs(std::max(0, ms - part - part / 2));
      break;
    case Kind::second: {
      sleepMs(part / 2);
      HostArgs other = hostArgs(judgement_.lives.size());
      other.exitFlushMs = settings_.exitFlushMs;
      const Started second = start(Kind::second, other);
      judgement_.lives[s.index].overlapped = true;
      judgement_.lives[second.index].overlapped = true;
      sleepMs(part);
      stop(second, other);
      sleepMs(std::max(0, ms - part - part / 2));
      break;
    }
    default:
      sleepMs(ms);
      break;
  }
  if (kind == Kind::exit)
    stop(s, args);
  else
    kill(s);
  if (kind == Kind::corrupt)
    corruptStore();
  reapWorkers();
}

void Lives::runFullAtLaunch(int trial) {
  HostArgs args = hostArgs(judgement_.lives.size());
  args.root = root_ / ("full-" + std::to_string(trial));
  args.user = "trial-" + std::to_string(trial);
  args.rate = 0;
  args.fullDisk = true;
  args.fullDiskExitMs = 400;
  fs::create_directories(args.root);
  const Started full = start(Kind::fullAtLaunch, args);
  if (trial % 2 == 1) {
    sleepMs(std::uniform_int_distribution<int>(50, 350)(random_));
    kill(full);
  } else {
    stop(full, args);
  }
  HostArgs room = hostArgs(judgement_.lives.size());
  room.root = args.root;
  room.user = args.user;
  room.rate = 0;
  const Started second = start(Kind::fullAtLaunch, room);
  sleepMs(1500);  // the launch goes 250 ms after its call; a second first launch shows too
  stop(second, room);
}

void Lives::drain(const std::vector<long long>& expected, std::chrono::seconds bound,
                  std::chrono::seconds idle) {
  server_.fault("/faults/clear");
  server_.fault("/faults/online");
  judgement_.delays.emplace_back(wallSeconds(), 0);
  const auto deadline = std::chrono::steady_clock::now() + bound;
  // One install after the other, so that each start's statistics compare with what the
  // emulator received meanwhile.
  for (const bool corrupt : {true, false}) {
    const fs::path install = corrupt ? corruptRoot() : root_;
    if (!fs::exists(install / "app"))
      continue;
    std::vector<long long> mine;
    for (const long long seq : expected) {
      const auto life = static_cast<std::size_t>(seq / kSeqRange - 1);
      if (life < judgement_.lives.size() &&
          (judgement_.lives[life].kind == Kind::corrupt) == corrupt)
        mine.push_back(seq);
    }
    HostArgs args = hostArgs(judgement_.lives.size());
    args.root = install;
    args.rate = 0;
    const Started s = start(Kind::drain, args);
    // What the overwritten pages held never comes: a short wait tells it from a slow queue.
    waitForArrivals(mine, deadline, corrupt ? std::min(idle, std::chrono::seconds(5)) : idle);
    sleepMs(1000);  // late repeats, if any, show up too
    stop(s, args);
  }
  reapWorkers();
  log_.update();
}

void Lives::waitForArrivals(const std::vector<long long>& expected,
                            std::chrono::steady_clock::time_point deadline,
                            std::chrono::seconds idle) {
  auto lastProgress = std::chrono::steady_clock::now();
  std::size_t lastCount = 0;
  while (std::chrono::steady_clock::now() < deadline &&
         std::chrono::steady_clock::now() - lastProgress < idle) {
    log_.update();
    std::size_t arrived = 0;
    for (const long long seq : expected)
      arrived += log_.eventArrived(seq) ? 1 : 0;
    if (arrived >= expected.size())
      return;
    if (arrived != lastCount) {
      lastCount = arrived;
      lastProgress = std::chrono::steady_clock::now();
    }
    sleepMs(200);
  }
}

// Forked workers are the children of their parent, which is killed: the harness is their
// subreaper and collects them.
void Lives::reapWorkers() {
  std::ifstream in(root_ / "children");
  pid_t pid = 0;
  while (in >> pid) {
    int status = 0;
    ::waitpid(pid, &status, WNOHANG);
  }
}

int Lives::stopWorkers() {
  std::ifstream in(root_ / "children");
  pid_t pid = 0;
  int running = 0;
  while (in >> pid) {
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == 0) {
      ++running;
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
    }
  }
  return running;
}

}  // namespace quorvel::chaos
