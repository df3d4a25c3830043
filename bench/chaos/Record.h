// What the emulator recorded, read from its request database: every tracking request with
// the emulator's own receive time, its answer and its report key (an event's number, a
// launch's install and counter). Read incrementally, so that polling it during a run costs
// only the rows added since.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace quorvel::chaos {

struct Received {
  double time = 0;  // the emulator's clock, seconds since 1970
  std::string service;
  int status = 0;
  bool repeat = false;  // the emulator had received this report before
  // Events: the harness's number and the call's wall time (ms); launches: the counter.
  long long seq = -1;
  long long callMs = 0;
  std::string install;  // the install's id (uid)
  long long counter = 0;

  bool answered() const { return status >= 200 && status < 500 && status != 429; }
};

class RequestLog {
 public:
  explicit RequestLog(std::string database) : database_(std::move(database)) {}
  // Reads the rows recorded since the last call.
  void update();
  const std::vector<Received>& all() const { return all_; }
  // Event numbers answered 2xx, so far.
  std::size_t eventsArrived() const { return arrivedEvents_; }
  bool eventArrived(long long seq) const { return firstAnswer_.count(seq) > 0; }

 private:
  std::string database_;
  long long lastId_ = 0;
  std::vector<Received> all_;
  std::map<long long, double> firstAnswer_;
  std::size_t arrivedEvents_ = 0;
};

// The harness's own record of accepted calls, from every host's file in `folder`:
// seq -> call ms.
std::map<long long, long long> readAccepted(const std::string& folder);

// Cuts the hosts' mapped files (accepted calls, logs) at their first zero byte, so that the
// files a run keeps hold only what was written.
void trimMappedFiles(const std::filesystem::path& root);

}  // namespace quorvel::chaos
