// The verdict from outside: what each fault kind cost, judged only from the harness's own
// records (accepted calls, lives and their kill times, corruptions) and the emulator's
// (what arrived, when, answered how). Nothing the library says about itself is used, but
// the statistics it prints at a normal exit, which are compared with the emulator's count.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Record.h"

namespace quorvel::chaos {

enum class Kind {
  kill,
  burst5xx,
  retry429,
  exit,
  diskFull,
  corrupt,
  fork,
  second,
  fullAtLaunch,
  drain
};
constexpr int kKinds = 10;
const char* kindName(Kind k);

// One host process, as the harness saw it.
struct Life {
  Kind kind = Kind::kill;
  long long firstSeq = 0;  // its events are firstSeq .. firstSeq + kSeqRange - 1
  double start = 0;        // wall seconds, at its spawn
  double end = 0;          // at its kill, or when it exited
  bool killed = false;
  bool overlapped = false;  // another host ran on the same directory meanwhile
  double fullFrom = 0;      // the disk fault: its file size limit 0 from here (wall seconds)
  double fullUntil = 0;     // to here
  std::string stats;        // the library's statistics at a normal exit (JSON), if any
};
constexpr long long kSeqRange = 10'000'000;

struct Judgement {
  double marginMs = 20;  // an answer's transit back to the host
  double windowMs = 10;  // the outbox's promise: written within this of its call
  std::vector<Life> lives;
  std::vector<double> corruptions;             // when a store was overwritten
  std::vector<std::pair<double, int>> delays;  // (since, ms): the emulator's answer delay
};

// Prints the table per fault kind, the launches, every service and the statistics'
// comparison. True when nothing was lost (beyond the corrupted stores), no repeat was
// avoidable, every install's first launch arrived once and the statistics agree.
bool judge(const Judgement& j, const RequestLog& log,
           const std::map<long long, long long>& accepted, bool verbose);

}  // namespace quorvel::chaos
