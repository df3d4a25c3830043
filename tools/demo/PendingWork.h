// Lets the demo wait, before it exits, for the work it started in the library: every block
// the library queues and every request it starts is counted until it has run or been
// answered. The counting wraps the platform's queues and URL sessions, as any host that
// installs its own platform services could.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include <quorvel/Platform.h>

namespace quorvel::demo {

class PendingWork {
 public:
  void begin();
  void end();
  // Waits until nothing is pending; false when `bound` passed first.
  bool waitUntilIdle(std::chrono::milliseconds bound);
  int pending() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable idle_;
  int count_ = 0;
};

// The same platform with its dispatcher and URL sessions counting into `pending`.
Platform countingPendingWork(Platform platform, const std::shared_ptr<PendingWork>& pending);

}  // namespace quorvel::demo
