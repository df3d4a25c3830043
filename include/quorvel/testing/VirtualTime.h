// Deterministic time for a host's tests: a virtual clock and queues that run their work on
// the test's own thread when the test advances time, so that no test has to sleep.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <quorvel/platform/Clock.h>
#include <quorvel/platform/DispatchQueue.h>

namespace quorvel::testkit {

class VirtualClock final : public platform::Clock {
 public:
  explicit VirtualClock(
      platform::TimePoint start = platform::TimePoint(std::chrono::seconds(1'700'000'000)),
      long gmtOffsetSeconds = 0)
      : now_(start), offset_(gmtOffsetSeconds) {}

  platform::TimePoint now() const noexcept override {
    std::lock_guard lock(mutex_);
    return now_;
  }
  long secondsFromGMT(platform::TimePoint) const noexcept override {
    std::lock_guard lock(mutex_);
    return offset_;
  }
  void set(platform::TimePoint t) {
    std::lock_guard lock(mutex_);
    now_ = t;
  }
  void setGMTOffset(long seconds) {
    std::lock_guard lock(mutex_);
    offset_ = seconds;
  }
  void advance(std::chrono::nanoseconds d) {
    std::lock_guard lock(mutex_);
    now_ += std::chrono::duration_cast<platform::TimePoint::duration>(d);
  }

 private:
  mutable std::mutex mutex_;
  platform::TimePoint now_;
  long offset_;
};

// All queues made by one VirtualDispatcher share its schedule: items run in due-time order
// (queue order for equal times) when the test calls runUntilIdle() or advance().
class VirtualDispatcher final : public platform::Dispatcher {
 public:
  explicit VirtualDispatcher(std::shared_ptr<VirtualClock> clock);

  std::shared_ptr<platform::DispatchQueue> makeSerialQueue(std::string label) override;
  std::shared_ptr<platform::DispatchQueue> mainQueue() override { return main_; }
  std::shared_ptr<platform::DispatchQueue> globalQueue() override { return global_; }

  // Runs everything due now, including what those items queue for now. Returns the count.
  std::size_t runUntilIdle();
  // Moves the clock forward by `d`, running each item at its due time on the way.
  std::size_t advance(std::chrono::nanoseconds d);
  std::size_t pendingCount() const;
  // Drops every pending item without running it; returns how many went. Call it when a test
  // ends with work still queued (a retry, a delayed flush): that work holds what it captured,
  // often the platform that holds this dispatcher, and the two would keep each other alive.
  std::size_t clear();
  // Labels of the queues of the items run so far, in order.
  std::vector<std::string> ranOn() const;

  // Used by the queues.
  void schedule(const std::string& label, const void* queue, std::chrono::nanoseconds delay,
                platform::Work work);
  bool isRunning(const void* queue) const;

 private:
  struct Item {
    std::string label;
    const void* queue;
    platform::Work work;
  };
  bool runOneDueAt(platform::TimePoint limit);

  std::shared_ptr<VirtualClock> clock_;
  mutable std::mutex mutex_;
  std::map<std::pair<platform::TimePoint, std::uint64_t>, Item> items_;
  std::uint64_t sequence_ = 0;
  std::vector<std::string> ranOn_;
  std::shared_ptr<platform::DispatchQueue> main_;
  std::shared_ptr<platform::DispatchQueue> global_;
};

}  // namespace quorvel::testkit
