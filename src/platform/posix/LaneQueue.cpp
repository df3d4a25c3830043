#include "platform/posix/LaneQueue.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "platform/posix/DueItems.h"

namespace quorvel::platform {

struct LaneQueue::State : std::enable_shared_from_this<LaneQueue::State> {
  using SteadyTime = DueItems::Clock::time_point;
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

  const std::shared_ptr<DispatchQueue> pool;
  std::mutex mutex;
  std::condition_variable idle;  // the running item ended
  DueItems items;
  bool running = false;
  bool stopping = false;
  SteadyTime turnAskedFor = SteadyTime::max();
};

namespace {
thread_local const LaneQueue::State* tCurrentLane = nullptr;
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

void LaneQueue::State::enqueue(SteadyTime due, Work work) noexcept {
  if (!work)
    return;
  try {
    std::optional<std::chrono::nanoseconds> ask;
    // Held while the turn is asked for: a turn asked earlier may run the item meanwhile, and
    // the item may drop the last reference to its own lane.
    std::shared_ptr<State> asking;
    {
      const std::lock_guard lock(mutex);
      if (stopping)
        return;
      items.push(due, std::move(work));
      ask = claimTurnLocked(due);
      if (ask)
        asking = shared_from_this();
    }
    if (asking)
      asking->askForTurn(*ask);
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
    Work work = items.takeDue();
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
    ask = claimTurnLocked(yielded ? std::chrono::steady_clock::now() : items.firstDue());
  lock.unlock();
  idle.notify_all();
  if (ask)
    askForTurn(*ask);
}

LaneQueue::LaneQueue(std::string label, std::shared_ptr<DispatchQueue> pool)
    : label_(std::move(label)), state_(std::make_shared<State>(std::move(pool))) {}

LaneQueue::~LaneQueue() {
  DueItems pending;
  std::unique_lock lock(state_->mutex);
  state_->stopping = true;
  state_->items.moveAllTo(pending);
  if (!isCurrent())
    state_->idle.wait(lock, [&] { return !state_->running; });
  lock.unlock();
  // `pending` goes here, outside the lock: its captures may queue more work.
}

void LaneQueue::async(Work work) noexcept {
  state_->enqueue(DueItems::Clock::now(), std::move(work));
}

void LaneQueue::asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept {
  state_->enqueue(DueItems::dueAfter(delay), std::move(work));
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
      work = state_->items.takeDue();
    }
    if (!work)
      break;
    runItem(work);
    ++ran;
  }
  return ran;
}

}  // namespace quorvel::platform
