// The host process of the chaos benchmark: the library in a program of its own, started by
// the harness (this same executable with "--host"), sending paced events until it is killed
// or told to stop.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>

namespace quorvel::chaos {

inline constexpr const char* kApp = "123456789";
inline constexpr const char* kDevKey = "CHAOS-DEV-KEY-0001";

inline double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A host's settings, passed as KEY=VALUE words after "--host".
struct HostArgs {
  std::filesystem::path root;      // the install: app data, keychain, stop files
  std::filesystem::path accepted;  // the folder where each host notes its accepted calls
  std::string domain;
  std::string caFile;
  long long firstSeq = 0;  // the life's own range of event numbers
  int rate = 0;            // events per second; 0 sends none
  std::string tag = "0";   // names the stop file ("stop-TAG") and the statistics ("stats-TAG")
  std::string user = "-";  // a customer user id, "-" for none
  int exitFlushMs = -1;    // the exit flush's timeout; < 0 keeps the library's default
  int forkChildMs = 0;     // > 0: fork a worker (no exec) that lives this long, then exit()s
  bool fullDisk = false;   // no file may grow from the start (RLIMIT_FSIZE 0)
  int fullDiskExitMs = 0;  // with fullDisk: return from main after this long

  std::map<std::string, std::string> words() const;
  static HostArgs fromWords(int argc, char** argv, int first);
};

// The host's main: returns its exit status.
int runHost(const HostArgs& a);

// Starts a host; its stderr goes to ROOT/host.log. -1 when it could not start.
pid_t spawnHost(const HostArgs& a);

}  // namespace quorvel::chaos
