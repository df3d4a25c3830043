// Work items in due-time order, first come first served among items due at once. Both kinds
// of serial queue hold their items this way: one served by threads of its own and a lane on
// a shared pool. Not locked: its owner holds its own lock around every call.
#pragma once

#include <cxxabi.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <queue>
#include <utility>
#include <vector>

#include <quorvel/platform/DispatchQueue.h>

namespace quorvel::platform {

class DueItems {
 public:
  using Clock = std::chrono::steady_clock;

  // The moment an item queued now with `delay` falls due; a negative delay means now.
  static Clock::time_point dueAfter(std::chrono::nanoseconds delay) noexcept {
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(
                              std::max(delay, std::chrono::nanoseconds::zero()));
  }

  // Returns whether the item is now the earliest, which changes what a waiting thread waits for.
  bool push(Clock::time_point due, Work work) {
    const bool earliest = heap_.empty() || due < heap_.top().due;
    heap_.push(Item{due, nextSequence_++, std::move(work)});
    return earliest;
  }

  bool empty() const noexcept { return heap_.empty(); }
  // Only when not empty.
  Clock::time_point firstDue() const { return heap_.top().due; }

  // The first item if it is due, else nothing.
  Work takeDue() {
    if (heap_.empty() || heap_.top().due > Clock::now())
      return nullptr;
    // The heap's top is const only to protect its order, which moving the work out keeps.
    Work work = std::move(const_cast<Item&>(heap_.top()).work);
    heap_.pop();
    return work;
  }

  // Hands every item to `out`, so that the owner can drop them outside its lock: their
  // captures may queue more work.
  void moveAllTo(DueItems& out) noexcept { std::swap(heap_, out.heap_); }

 private:
  struct Item {
    Clock::time_point due;
    std::uint64_t sequence;
    Work work;
  };
  struct Later {
    bool operator()(const Item& a, const Item& b) const {
      return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
    }
  };

  std::priority_queue<Item, std::vector<Item>, Later> heap_;
  std::uint64_t nextSequence_ = 0;
};

// Runs one item; one that throws must not take its queue down with it. A thread ended under
// it (a forced unwind: a host's function that ended its thread) must go on unwinding. The
// catch of a forced unwind binds its reference to no object, which is how the runtime passes
// it: the sanitizer's null check is off here, or it would report that as undefined.
__attribute__((no_sanitize("null"))) inline void runItem(Work& work) {
  try {
    work();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
  }
  work = nullptr;
}

}  // namespace quorvel::platform
