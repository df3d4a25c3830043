// A queue served by its own threads: one thread makes it serial, several make it concurrent.
// Delayed items wait in due-time order. Threads start when work comes and, given an idle
// time, end when the queue has held nothing for that long: an idle library holds no thread
// for it. Without one they stay until the queue goes (and sleep while it is empty).
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <quorvel/platform/DispatchQueue.h>

namespace quorvel::platform {

class ThreadQueue final : public DispatchQueue {
 public:
  // Threads are named `threadName` (the label when empty), cut to 15 characters.
  ThreadQueue(std::string label, unsigned threadCount, const std::string& threadName = {},
              std::optional<std::chrono::milliseconds> idleTime = std::nullopt);
  // Stops the threads; items not yet started are dropped. May run on one of the queue's own
  // threads (when an item lets go of the last reference): that thread finishes its item and
  // ends by itself.
  ~ThreadQueue() override;

  const std::string& label() const noexcept override { return label_; }
  void async(Work work) noexcept override;
  void asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept override;
  bool isCurrent() const noexcept override;
  // Only from one of its own items and only when serial: more threads would run items of
  // one queue side by side anyway, and another thread must never run them.
  // The threads alive now (benchmarks and tests read it).
  std::size_t threadCount() const noexcept;
  std::size_t runDueItemsHere() noexcept override;

  struct State;

 private:
  std::string label_;
  // Shared with the threads, so that it outlives a queue destroyed by one of them.
  std::shared_ptr<State> state_;
};

}  // namespace quorvel::platform
