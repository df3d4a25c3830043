// A serial queue without a thread of its own: its items run one at a time, in order, on the
// threads of a shared pool. The library's queues (its main queue, its serial queues, a
// session's callbacks) are lanes on one small pool, so that they need two threads between
// them under load and none when idle, rather than one thread each for ever.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <quorvel/platform/DispatchQueue.h>

namespace quorvel::platform {

class LaneQueue final : public DispatchQueue {
 public:
  LaneQueue(std::string label, std::shared_ptr<DispatchQueue> pool);
  // Drops what has not started. Waits for an item running on another thread; from one of its
  // own items, that item finishes after the lane is gone.
  ~LaneQueue() override;

  const std::string& label() const noexcept override { return label_; }
  void async(Work work) noexcept override;
  void asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept override;
  bool isCurrent() const noexcept override;
  // From one of its own items only: the lane is this thread's while that item runs.
  std::size_t runDueItemsHere() noexcept override;

  struct State;

 private:
  std::string label_;
  std::shared_ptr<State> state_;
};

}  // namespace quorvel::platform
