// The lives of the chaos benchmark: one host process each, with the fault of its kind played
// on it (a kill at a random moment, the emulator answering 5xx or 429 for a while, a normal
// exit, a disk that fills and frees, a store overwritten after the kill, a forked worker, a
// second process on the same directory, a first launch on a full disk), recorded as the
// harness saw it for the judgement.
#pragma once

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "../Devserver.h"
#include "Host.h"
#include "Judge.h"

namespace quorvel::chaos {

struct LifeSettings {
  int rate = 1500;
  int minLifeMs = 100;
  int maxLifeMs = 900;
  int exitFlushMs = 300;  // a normal exit's flush
};

class Lives {
 public:
  Lives(const LifeSettings& settings, quorvel::bench::Devserver& server, std::filesystem::path root,
        unsigned seed);

  void run(Kind kind);
  // A fresh install whose first launch meets a full disk, killed or returning from main, then
  // a start with room on it.
  void runFullAtLaunch(int trial);
  // A last start with every fault cleared, until every accepted event arrived, nothing more
  // came for `idle` seconds or `bound` passed; then a normal exit.
  void drain(const std::vector<long long>& expected, std::chrono::seconds bound,
             std::chrono::seconds idle);
  // Kills the forked workers still running (they should have exited) and says how many.
  int stopWorkers();

  Judgement& judgement() { return judgement_; }
  RequestLog& log() { return log_; }

 private:
  struct Started {
    std::size_t index;
    pid_t pid;
  };
  Started start(Kind kind, HostArgs args);
  void kill(const Started& s);
  // Asks the host to stop and waits (10 s at most, then a kill); keeps its statistics.
  void stop(const Started& s, const HostArgs& args);
  HostArgs hostArgs(std::size_t index) const;
  int lifeMs();
  void sleepMs(int ms) const;
  void setDelay(int ms);
  void playNetworkFault();
  void serviceFault(int code, int retryAfter);
  void corruptStore();
  void reapWorkers();
  void waitForArrivals(const std::vector<long long>& expected,
                       std::chrono::steady_clock::time_point deadline, std::chrono::seconds idle);
  // The corrupt lives have an install of their own, so that what an overwritten store loses
  // is theirs alone.
  std::filesystem::path corruptRoot() const { return root_ / "corrupt"; }

  LifeSettings settings_;
  quorvel::bench::Devserver& server_;
  std::filesystem::path root_;
  std::mt19937 random_;
  Judgement judgement_;
  RequestLog log_;
};

}  // namespace quorvel::chaos
