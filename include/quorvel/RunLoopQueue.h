// A serial queue that the host drives from its own loop (post + drain).
//
// Install it as the main queue (makePosixDispatcher(queue)) to receive every delegate
// callback on the host's own main thread: the queue calls `wakeUp` whenever work was added
// (from any thread), and the host then calls drain() on its loop's thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <quorvel/platform/DispatchQueue.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

class RunLoopQueue final : public platform::DispatchQueue {
 public:
  explicit RunLoopQueue(std::string label, std::function<void()> wakeUp = {});
  ~RunLoopQueue() override;

  const std::string& label() const noexcept override;
  void async(platform::Work work) noexcept override;
  void asyncAfter(std::chrono::nanoseconds delay, platform::Work work) noexcept override;
  bool isCurrent() const noexcept override;
  // Drains here unless another thread is draining the queue at this moment.
  std::size_t runDueItemsHere() noexcept override;

  // Runs every item that is due now, in order; returns how many ran. Call from one thread.
  std::size_t drain();
  // Drops every item still waiting, due or not, releasing what they hold: for a host whose
  // loop has ended for good. Returns how many were dropped.
  std::size_t discardPending() noexcept;
  // Time until the next delayed item is due; nullopt when nothing waits.
  std::optional<std::chrono::nanoseconds> timeUntilNextItem() const;

 private:
  std::size_t runDueItems() noexcept;

  struct State;
  std::string label_;
  std::function<void()> wakeUp_;
  std::unique_ptr<State> state_;
};

}  // namespace quorvel

#pragma GCC visibility pop
