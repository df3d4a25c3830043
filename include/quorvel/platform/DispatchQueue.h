// Queues that run work items: serial queues with a label, the main queue, the global queue.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

using Work = std::function<void()>;

class DispatchQueue {
 public:
  DispatchQueue() = default;
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  virtual ~DispatchQueue() = default;

  virtual const std::string& label() const noexcept = 0;
  // Runs `work` as soon as possible. Any thread; never blocks the caller.
  virtual void async(Work work) noexcept = 0;
  // Runs `work` no earlier than `delay` from now. Items of a serial queue that fall due
  // together run in the order in which they were queued.
  virtual void asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept = 0;
  // True when called from a work item of this queue.
  virtual bool isCurrent() const noexcept = 0;
  // Runs on the calling thread the items that are due now, when this queue can let it: a
  // serial queue when called from one of its own items, a host-turned loop when no other
  // thread turns it at that moment. Returns how many ran. A flush calls it while it waits,
  // so that what is queued here is not stranded when the thread that would run it is the
  // one waiting (a flush or exit() from a callback, a host's loop that no longer turns).
  // Queues that cannot, return 0.
  virtual std::size_t runDueItemsHere() noexcept { return 0; }
};

// Makes queues and hands out the process-wide main and global queues.
class Dispatcher {
 public:
  Dispatcher() = default;
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;
  virtual ~Dispatcher() = default;

  // A new serial queue: one item at a time, in queue order.
  virtual std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label) = 0;
  // A serial queue whose items wait for the disk (writes, syncs): where queues share threads,
  // it gets one of its own, so that a slow disk never holds up the others.
  virtual std::shared_ptr<DispatchQueue> makeDiskQueue(std::string label) {
    return makeSerialQueue(std::move(label));
  }
  // The main queue: where delegate callbacks go. Serial.
  virtual std::shared_ptr<DispatchQueue> mainQueue() = 0;
  // The global concurrent queue of default priority.
  virtual std::shared_ptr<DispatchQueue> globalQueue() = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
