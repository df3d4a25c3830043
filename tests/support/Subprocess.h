// Runs the project's tools as child processes, with a bound on how long they may take.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace quorvel::test {

struct ProcessResult {
  int exitCode = -1;  // -1 when it did not exit by itself in time (it was killed)
  std::string out;
  std::string err;
};

// Runs `argv` to its end, or kills it after `bound`. Output goes through files in `scratch`.
ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& scratch,
                         std::chrono::milliseconds bound = std::chrono::seconds(60));

// A child that runs until it is destroyed: SIGTERM, then SIGKILL if it lingers.
class BackgroundProcess {
 public:
  BackgroundProcess(const std::vector<std::string>& argv, const std::string& outFile,
                    const std::string& errFile);
  ~BackgroundProcess();
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  // The exit status after a stop: 0 for a clean exit on SIGTERM.
  int stop(std::chrono::milliseconds bound = std::chrono::seconds(20));
  // Ends it with SIGKILL, as the system kills an app: nothing of it runs any more.
  void killNow();

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

}  // namespace quorvel::test
