#include "Judge.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <set>

#include <quorvel/Json.h>

namespace quorvel::chaos {

const char* kindName(Kind k) {
  switch (k) {
    case Kind::kill:
      return "SIGKILL";
    case Kind::burst5xx:
      return "5xx burst";
    case Kind::retry429:
      return "429+Retry-After";
    case Kind::exit:
      return "normal exit";
    case Kind::diskFull:
      return "disk fills";
    case Kind::corrupt:
      return "corrupt store";
    case Kind::fork:
      return "forked child";
    case Kind::second:
      return "second process";
    case Kind::fullAtLaunch:
      return "full at launch";
    case Kind::drain:
      return "final start";
  }
  return "?";
}

namespace {

struct Row {
  int lives = 0;
  std::size_t accepted = 0, arrived = 0, lost = 0, lostNearKill = 0, lostCorrupt = 0;
  std::size_t lostFull = 0;  // called on a full disk that stayed full until the kill
  std::size_t nearKill = 0;  // calls within the window before a kill
  std::size_t repeats = 0, avoidable = 0;
  std::size_t launches = 0, launchRepeats = 0, launchAvoidable = 0;
};

// The emulator's answer delay in force at any time in [from, to].
int delayDuring(const Judgement& j, double from, double to) {
  int most = 0;
  int inForce = 0;
  for (const auto& [since, ms] : j.delays) {
    if (since <= from)
      inForce = ms;
    else if (since <= to)
      most = std::max(most, ms);
  }
  return std::max(most, inForce);
}

// The lives that may have sent a copy the emulator recorded at `t`: alive at some moment
// between its possible send (before the emulator's delay and the transit) and `t`.
std::vector<std::size_t> senders(const Judgement& j, double t) {
  const double margin = j.marginMs / 1000.0;
  const double from = t - margin - delayDuring(j, t - 60, t) / 1000.0;
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < j.lives.size(); ++i)
    if (j.lives[i].start <= t && j.lives[i].end >= from)
      out.push_back(i);
  return out;
}

// The time within [from, to] when `life` could write: outside its disk fault.
double writableSeconds(const Life& life, double from, double to) {
  const double whole = std::max(0.0, to - from);
  const double full = std::max(0.0, std::min(to, life.fullUntil) - std::max(from, life.fullFrom));
  return whole - full;
}

// How long the sender of a copy recorded at `t` lived on after it with a disk it could write
// to, at least (the shortest over the lives that may have sent it); negative when none may
// have.
double leadOverEnd(const Judgement& j, double t) {
  double lead = -1;
  for (const std::size_t i : senders(j, t)) {
    const double writable = writableSeconds(j.lives[i], t, j.lives[i].end);
    lead = lead < 0 ? writable : std::min(lead, writable);
  }
  return lead;
}

int lifeOfTime(const Judgement& j, double t) {
  const auto who = senders(j, t);
  return who.empty() ? -1 : static_cast<int>(who.back());
}

void printRow(const char* name, const Row& r) {
  std::printf("  %-16s %5d %9zu %9zu %6zu %5zu %7zu %5zu %7zu %9zu %8zu %5zu %9zu\n", name, r.lives,
              r.accepted, r.arrived, r.lost, r.lostNearKill, r.lostCorrupt, r.lostFull, r.repeats,
              r.avoidable, r.launches, r.launchRepeats, r.launchAvoidable);
}

void add(Row& total, const Row& r) {
  total.lives += r.lives;
  total.accepted += r.accepted;
  total.arrived += r.arrived;
  total.lost += r.lost;
  total.lostNearKill += r.lostNearKill;
  total.lostCorrupt += r.lostCorrupt;
  total.lostFull += r.lostFull;
  total.nearKill += r.nearKill;
  total.repeats += r.repeats;
  total.avoidable += r.avoidable;
  total.launches += r.launches;
  total.launchRepeats += r.launchRepeats;
  total.launchAvoidable += r.launchAvoidable;
}

// Copies answered (2xx or final 4xx), by report, in the emulator's order.
template <typename Key>
using Copies = std::map<Key, std::vector<const Received*>>;

// Counts the repeats of `copies` into the row of `rowOf(first copy)`.
// A later copy is avoidable when whoever sent the first copy had its answer before its end:
// every life that may have sent it lived past the first copy's record plus the margin.
// `leads` gets each avoidable repeat's lead.
template <typename Key, typename RowOf, typename Count>
void countRepeats(const Judgement& j, const Copies<Key>& copies, RowOf rowOf, Count count,
                  std::vector<double>& leads, bool verbose) {
  for (const auto& [key, list] : copies) {
    const double lead = leadOverEnd(j, list.front()->time);
    const bool held = lead > j.marginMs / 1000.0;
    Row* row = rowOf(key, *list.front());
    for (std::size_t i = 1; i < list.size(); ++i) {
      count(row, held);
      if (held)
        leads.push_back(lead);
      if (held && verbose)
        std::fprintf(stderr, "avoidable repeat: %s first at %.3f, again at %.3f\n",
                     list.front()->service.c_str(), list.front()->time, list[i]->time);
    }
  }
}

// The library's figures are taken at `exitAt`. An answer to a request the emulator recorded
// within the transit margin before then may or may not have reached the library, and none to a
// request recorded after it can have: a figure agrees when it lies between the two counts.
// The emulator records a request as it answers it: while it plays a delay, an earlier life's
// last requests are recorded well into the next lives. A request another life may have sent
// counts toward the most only.
// `repeated` counts the copies sent after one that may have reached the service (sent by an
// earlier life that ended before its answer, or failed in transport): at least the repeats
// the emulator flagged. It may be more: a copy on its way when its sender ended need not have
// arrived, and a copy is counted as it leaves, before the emulator records it; neither can be
// told from outside, so no upper bound is checked.
struct Range {
  long long least = 0;
  long long most = 0;
  bool holds(long long v) const { return v >= least && v <= most; }
};

bool compareStats(const Judgement& j, const RequestLog& log) {
  int compared = 0;
  int disagree = 0;
  for (const auto& life : j.lives) {
    if (life.stats.empty() || life.overlapped)
      continue;
    const quorvel::Json s = quorvel::Json::parse(life.stats, nullptr, false);
    if (!s.is_object())
      continue;
    const double exitAt = s.value("exitAt", life.end);
    const double sure = exitAt - j.marginMs / 1000.0;
    Range delivered, refused, repeated;
    for (const auto& r : log.all()) {
      if (r.time < life.start || r.time > exitAt || (r.service != "t" && r.service != "events"))
        continue;
      const bool ok = r.status >= 200 && r.status < 300;
      const bool no = r.status >= 400 && r.status < 500 && r.status != 429;
      const auto who = senders(j, r.time);
      const bool mine = who.size() == 1 && &j.lives[who.front()] == &life;
      const bool answerSeen = mine && r.time <= sure;
      delivered.most += ok ? 1 : 0;
      refused.most += no ? 1 : 0;
      delivered.least += ok && answerSeen ? 1 : 0;
      refused.least += no && answerSeen ? 1 : 0;
      repeated.least += mine && r.repeat ? 1 : 0;
      repeated.most = std::numeric_limits<long long>::max();
    }
    ++compared;
    const long long libDelivered = s.value("delivered", 0LL);
    const long long libRefused = s.value("refused", 0LL);
    const long long libRepeated = s.value("repeated", 0LL);
    if (!delivered.holds(libDelivered) || !refused.holds(libRefused) ||
        !repeated.holds(libRepeated)) {
      ++disagree;
      std::printf(
          "  disagreement, %s life from %.3f: library delivered %lld refused %lld repeated "
          "%lld (waiting %lld), emulator %lld-%lld %lld-%lld at least %lld\n",
          kindName(life.kind), life.start, libDelivered, libRefused, libRepeated,
          s.value("waiting", 0LL), delivered.least, delivered.most, refused.least, refused.most,
          repeated.least);
    }
  }
  std::printf(
      "deliveryStats() against the emulator (delivered, refused, repeated) after %d "
      "normal exits: %d disagree\n",
      compared, disagree);
  return disagree == 0;
}

}  // namespace

bool judge(const Judgement& j, const RequestLog& log,
           const std::map<long long, long long>& accepted, bool verbose) {
  std::vector<Row> rows(kKinds);
  for (const auto& life : j.lives) {
    ++rows[static_cast<int>(life.kind)].lives;
    if (verbose)
      std::fprintf(stderr, "life %lld: %s, %.3f to %.3f%s, disk full %.3f to %.3f\n",
                   life.firstSeq / kSeqRange - 1, kindName(life.kind), life.start, life.end,
                   life.killed ? " (killed)" : "", life.fullFrom, life.fullUntil);
  }
  const auto originRow = [&](long long seq) -> Row* {
    const auto life = static_cast<std::size_t>(seq / kSeqRange - 1);
    return life < j.lives.size() ? &rows[static_cast<int>(j.lives[life].kind)] : nullptr;
  };

  std::vector<double> leads;
  Copies<long long> events;
  Copies<std::pair<std::string, long long>> launches;
  std::map<std::string, std::map<std::string, std::size_t>> services;
  for (const auto& r : log.all()) {
    auto& s = services[r.service.empty() ? "-" : r.service];
    ++s["requests"];
    s[r.answered() ? (r.status < 300 ? "2xx" : "4xx") : "5xx/429"] += 1;
    s["repeat"] += r.repeat ? 1 : 0;
    if (!r.answered())
      continue;
    if (r.seq >= 0)
      events[r.seq].push_back(&r);
    else if (r.service == "t" && !r.install.empty())
      launches[{r.install, r.counter}].push_back(&r);
  }

  // Lost beyond the window and the overwritten stores, by the call's distance from its
  // host's kill: under 50 ms, 50-200 ms, more; and from hosts that exited normally.
  std::size_t lostBefore[4] = {0, 0, 0, 0};
  // Events: arrived, lost (near a kill, or waiting when a store was overwritten), repeats.
  for (const auto& [seq, callMs] : accepted) {
    Row* row = originRow(seq);
    if (row == nullptr)
      continue;
    ++row->accepted;
    const double call = static_cast<double>(callMs) / 1000.0;
    const auto& life = j.lives[static_cast<std::size_t>(seq / kSeqRange - 1)];
    const bool nearKill = life.killed && life.end - call < j.windowMs / 1000.0;
    row->nearKill += nearKill ? 1 : 0;
    if (events.count(seq) > 0) {
      ++row->arrived;
      continue;
    }
    ++row->lost;
    // The corrupt lives have an install of their own: only their reports were in the pages
    // overwritten after them.
    const bool corrupted =
        life.kind == Kind::corrupt &&
        std::any_of(j.corruptions.begin(), j.corruptions.end(), [&](double c) { return c > call; });
    // Unanswered when its host was killed, and no moment to write it since the call: the
    // disk was full from the call to within the window of the kill.
    const bool onFullDisk = !nearKill && !corrupted && life.killed && life.fullUntil > 0 &&
                            writableSeconds(life, call, life.end) < j.windowMs / 1000.0;
    row->lostNearKill += nearKill ? 1 : 0;
    row->lostCorrupt += corrupted ? 1 : 0;
    row->lostFull += onFullDisk ? 1 : 0;
    if (!nearKill && !corrupted && !onFullDisk) {
      const double before = life.end - call;
      ++lostBefore[!life.killed ? 3 : (before < 0.05 ? 0 : (before < 0.2 ? 1 : 2))];
    }
    if (verbose)
      std::fprintf(stderr, "lost %lld: %s life, called at %.3f, %.1f ms before its end%s\n", seq,
                   kindName(life.kind), call, (life.end - call) * 1000.0,
                   corrupted ? ", before a corruption" : (onFullDisk ? ", on a full disk" : ""));
  }
  std::size_t unnoted = 0;  // arrived, but its host died before noting the call's return
  for (const auto& [seq, copies] : events)
    unnoted += accepted.count(seq) == 0 ? 1 : 0;
  countRepeats(
      j, events, [&](long long seq, const Received&) { return originRow(seq); },
      [](Row* row, bool held) {
        if (row == nullptr)
          return;
        ++row->repeats;
        row->avoidable += held ? 1 : 0;
      },
      leads, verbose);

  // Launches: by install and counter; each counter once, none missing below the highest.
  Row unplaced;
  const auto launchRow = [&](const std::pair<std::string, long long>&, const Received& r) {
    const int life = lifeOfTime(j, r.time);
    return life < 0 ? &unplaced : &rows[static_cast<int>(j.lives[life].kind)];
  };
  for (const auto& [key, copies] : launches)
    ++launchRow(key, *copies.front())->launches;
  countRepeats(
      j, launches, launchRow,
      [](Row* row, bool held) {
        ++row->launchRepeats;
        row->launchAvoidable += held ? 1 : 0;
      },
      leads, verbose);
  std::map<std::string, std::set<long long>> counters;
  for (const auto& [key, copies] : launches)
    counters[key.first].insert(key.second);
  // The install of the corrupt lives loses what its overwritten pages held, launches too.
  std::set<std::string> overwritten;
  for (const auto& [seq, copies] : events) {
    const auto life = static_cast<std::size_t>(seq / kSeqRange - 1);
    if (life < j.lives.size() && j.lives[life].kind == Kind::corrupt)
      overwritten.insert(copies.front()->install);
  }
  std::size_t missing = 0;
  std::size_t missingOverwritten = 0;
  std::size_t firstTwice = 0;
  std::size_t firstNever = 0;
  for (const auto& [install, seen] : counters) {
    const auto gaps = static_cast<std::size_t>(*seen.rbegin()) - seen.size();
    if (overwritten.count(install) > 0) {
      missingOverwritten += gaps;
      continue;
    }
    missing += gaps;
    firstNever += seen.count(1) == 0 ? 1 : 0;
    const auto first = launches.find({install, 1});
    firstTwice += first != launches.end() && first->second.size() > 1 ? 1 : 0;
  }

  std::printf("\n  %-16s %5s %9s %9s %6s %5s %7s %5s %7s %9s %8s %5s %9s\n", "fault kind", "lives",
              "accepted", "arrived", "lost", "<10ms", "corrupt", "full", "repeats", "avoidable",
              "launches", "rep.", "avoidable");
  Row total;
  for (int k = 0; k < kKinds; ++k) {
    if (rows[k].lives == 0)
      continue;
    printRow(kindName(static_cast<Kind>(k)), rows[k]);
    add(total, rows[k]);
  }
  if (unplaced.launches > 0)
    printRow("(no life)", unplaced);
  add(total, unplaced);
  printRow("all", total);
  std::printf(
      "  lost: never answered 2xx; <10ms: of them, called within %.0f ms of its host's kill; "
      "corrupt: of them, in an install whose store was overwritten after the call; full: "
      "of them, called on a full disk that stayed full until %.0f ms before the kill\n",
      j.windowMs, j.windowMs);
  std::printf(
      "  lost beyond the window, the overwritten stores and the full disks, called before a kill "
      "by "
      "under 50 ms %zu, 50-200 ms %zu, more %zu; from hosts that exited normally %zu\n",
      lostBefore[0], lostBefore[1], lostBefore[2], lostBefore[3]);
  std::printf(
      "  calls within %.0f ms of a kill: %zu (%zu lost); arrived but not noted before a "
      "kill: %zu\n",
      j.windowMs, total.nearKill, total.lostNearKill, unnoted);
  std::printf(
      "  avoidable: the first copy was recorded more than %.0f ms (plus any answer delay "
      "the emulator played) before the end of every life that could have sent it, not "
      "counting the time its disk was full\n",
      j.marginMs);
  std::size_t within[3] = {0, 0, 0};  // 50 ms, 200 ms, more
  for (const double lead : leads)
    ++within[lead < 0.05 ? 0 : (lead < 0.2 ? 1 : 2)];
  std::printf(
      "  avoidable repeats by how long their first copy came before its sender's end: "
      "under 50 ms %zu, 50-200 ms %zu, more %zu\n",
      within[0], within[1], within[2]);
  std::printf(
      "launches: %zu installs, %zu counters missing below an install's highest (+%zu in "
      "the overwritten install), counter 1 more than once in %zu, never in %zu\n",
      counters.size(), missing, missingOverwritten, firstTwice, firstNever);
  std::printf("services (requests, 2xx, 4xx, 5xx/429, flagged repeats by the emulator):\n");
  for (auto& [name, s] : services)
    std::printf("  %-10s %8zu %8zu %6zu %8zu %6zu\n", name.c_str(), s["requests"], s["2xx"],
                s["4xx"], s["5xx/429"], s["repeat"]);
  const bool statsAgree = compareStats(j, log);
  // A loss on a full disk is shown apart but not excused: the service was up, and a report
  // the disk could not keep had the time from its call to the kill to be answered.
  const std::size_t unexplained = total.lost - total.lostCorrupt;
  return unexplained == 0 && missing == 0 && total.avoidable == 0 && total.launchAvoidable == 0 &&
         firstTwice == 0 && firstNever == 0 && statsAgree;
}

}  // namespace quorvel::chaos
