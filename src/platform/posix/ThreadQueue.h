// A queue served by its own threads: one thread makes it serial, several make it concurrent.
// Delayed items wait in due-time order; an idle queue sleeps on a condition variable.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include <quorvel/platform/DispatchQueue.h>

namespace quorvel::platform {

class ThreadQueue final : public DispatchQueue {
 public:
  // Threads are named `threadName` (the label when empty), cut to 15 characters.
  ThreadQueue(std::string label, unsigned threadCount, std::string threadName = {});
  // Stops the threads; items not yet started are dropped.
  ~ThreadQueue() override;

  const std::string& label() const noexcept override { return label_; }
  void async(Work work) noexcept override;
  void asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept override;
  bool isCurrent() const noexcept override;

 private:
  using SteadyTime = std::chrono::steady_clock::time_point;
  struct Item {
    SteadyTime due;
    std::uint64_t sequence;
    Work work;
  };
  struct Later {
    bool operator()(const Item& a, const Item& b) const {
      return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
    }
  };

  void run();
  void enqueue(SteadyTime due, Work work) noexcept;

  std::string label_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::priority_queue<Item, std::vector<Item>, Later> items_;
  std::uint64_t nextSequence_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace quorvel::platform
