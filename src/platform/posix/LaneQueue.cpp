#include "platform/posix/LaneQueue.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <queue>
#include <vector>

namespace quorvel::platform {

struct LaneQueue::State : std::enable_shared_from_this<LaneQueue::State> {
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
  // A turn gives the pool's thread to the other lanes once it has run this long: a lane
  // that builds requests must not keep the one that writes them to disk waiting.
  static constexpr std::chrono::microseconds kTurnLength{500};

  explicit State(std::shared_ptr<DispatchQueue> p) : pool(std::move(p)) {}

  void enqueue(SteadyTime due, Work work) noexcept;
  void turn() noexcept;
  // Asks the pool for a turn at `due` unless one is asked for by then; the lock is held.
  // Returns the delay to ask with, or nothing.
  std::optional<std::chrono::nanoseconds> claimTurnLocked(SteadyTime due);
  void askForTurn(std::chrono::nanoseconds delay) noexcept;
  Work takeDueLocked();

  const std::shared_ptr<DispatchQueue> pool;
  std::mutex mutex;
  std::condition_variable idle;  // the running item ended
  std::priority_queue<Item, std::vector<Item>, Later> items;
  std::uint64_t nextSequence = 0;
  bool running = false;
  bool stopping = false;
  SteadyTime turnAskedFor = SteadyTime::max();
};

namespace {
thread_local const LaneQueue::State* tCurrentLane = nullptr;

void runItem(Work& work) noexcept {
  try {
    work();
  } catch (...) {
    // A work item that throws must not take the lane down with it.
  }
  work = nullptr;
}
}  // namespace

std::optional<std::chrono::nanoseconds> LaneQueue::State::claimTurnLocked(SteadyTime due) {
  if (running || stopping || due >= turnAskedFor)
    return std::nullopt;  // a running turn, or one asked for earlier, looks again
  turnAskedFor = due;
  return std::max(std::chrono::nanoseconds::zero(), due - std::chrono::steady_clock::now());
}

void LaneQueue::State::askForTurn(std::chrono::nanoseconds delay) noexcept {
  // The pool holds the lane weakly: a lane that went away takes its turns with it.
  pool->asyncAfter(delay, [weak = weak_from_this()] {
    if (const auto lane = weak.lock())
      lane->turn();
  });
}

Work LaneQueue::State::takeDueLocked() {
  if (items.empty() || items.top().due > std::chrono::steady_clock::now())
    return nullptr;
  Work work = std::move(const_cast<Item&>(items.top()).work);
  items.pop();
  return work;
}

void LaneQueue::State::enqueue(SteadyTime due, Work work) noexcept {
  if (!work)
    return;
  try {
    std::optional<std::chrono::nanoseconds> ask;
    {
      const std::lock_guard lock(mutex);
      if (stopping)
        return;
      items.push(Item{due, nextSequence++, std::move(work)});
      ask = claimTurnLocked(due);
    }
    if (ask)
      askForTurn(*ask);
  } catch (...) {
    // Out of memory: the item is lost, the caller is never disturbed.
  }
}

void LaneQueue::State::turn() noexcept {
  std::unique_lock lock(mutex);
  if (running || stopping)
    return;  // the running turn looks again before it ends
  running = true;
  turnAskedFor = SteadyTime::max();
  const State* const outer = tCurrentLane;
  tCurrentLane = this;
  const auto turnEnd = std::chrono::steady_clock::now() + kTurnLength;
  bool yielded = false;
  for (;;) {
    Work work = takeDueLocked();
    if (!work)
      break;
    lock.unlock();
    runItem(work);
    lock.lock();
    if (std::chrono::steady_clock::now() >= turnEnd) {
      yielded = true;
      break;
    }
  }
  tCurrentLane = outer;
  running = false;
  std::optional<std::chrono::nanoseconds> ask;
  if (!items.empty())
    ask = claimTurnLocked(yielded ? std::chrono::steady_clock::now() : items.top().due);
  lock.unlock();
  idle.notify_all();
  if (ask)
    askForTurn(*ask);
}

LaneQueue::LaneQueue(std::string label, std::shared_ptr<DispatchQueue> pool)
    : label_(std::move(label)), state_(std::make_shared<State>(std::move(pool))) {}

LaneQueue::~LaneQueue() {
  std::priority_queue<State::Item, std::vector<State::Item>, State::Later> pending;
  std::unique_lock lock(state_->mutex);
  state_->stopping = true;
  pending.swap(state_->items);
  if (!isCurrent())
    state_->idle.wait(lock, [&] { return !state_->running; });
  lock.unlock();
  // `pending` goes here, outside the lock: its captures may queue more work.
}

void LaneQueue::async(Work work) noexcept {
  state_->enqueue(std::chrono::steady_clock::now(), std::move(work));
}

void LaneQueue::asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept {
  const auto clamped = delay.count() < 0 ? std::chrono::nanoseconds(0) : delay;
  state_->enqueue(std::chrono::steady_clock::now() +
                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(clamped),
                  std::move(work));
}

bool LaneQueue::isCurrent() const noexcept {
  return tCurrentLane == state_.get();
}

std::size_t LaneQueue::runDueItemsHere() noexcept {
  if (!isCurrent())
    return 0;
  std::size_t ran = 0;
  for (;;) {
    Work work;
    {
      const std::lock_guard lock(state_->mutex);
      if (state_->stopping)
        break;
      work = state_->takeDueLocked();
    }
    if (!work)
      break;
    runItem(work);
    ++ran;
  }
  return ran;
}

}  // namespace quorvel::platform
