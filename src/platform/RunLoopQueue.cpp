#include <quorvel/RunLoopQueue.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace quorvel {
namespace {
thread_local const RunLoopQueue* tDraining = nullptr;
using SteadyTime = std::chrono::steady_clock::time_point;
}  // namespace

struct RunLoopQueue::State {
  mutable std::mutex mutex;
  std::multimap<std::pair<SteadyTime, std::uint64_t>, platform::Work> items;
  std::uint64_t sequence = 0;
  // The thread inside drain() and how deep: runDueItemsHere() leaves the queue to it.
  std::thread::id drainer;
  int depth = 0;
};

RunLoopQueue::RunLoopQueue(std::string label, std::function<void()> wakeUp)
    : label_(std::move(label)), wakeUp_(std::move(wakeUp)), state_(std::make_unique<State>()) {}

RunLoopQueue::~RunLoopQueue() = default;

const std::string& RunLoopQueue::label() const noexcept {
  return label_;
}

void RunLoopQueue::async(platform::Work work) noexcept {
  asyncAfter(std::chrono::nanoseconds(0), std::move(work));
}

void RunLoopQueue::asyncAfter(std::chrono::nanoseconds delay, platform::Work work) noexcept {
  if (!work)
    return;
  try {
    const auto due = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         delay.count() < 0 ? std::chrono::nanoseconds(0) : delay);
    {
      std::lock_guard lock(state_->mutex);
      state_->items.emplace(std::make_pair(due, state_->sequence++), std::move(work));
    }
    if (wakeUp_)
      wakeUp_();
  } catch (...) {
  }
}

std::size_t RunLoopQueue::discardPending() noexcept {
  decltype(state_->items) dropped;  // destroyed outside the lock: items may queue more
  {
    std::lock_guard lock(state_->mutex);
    dropped.swap(state_->items);
  }
  return dropped.size();
}

bool RunLoopQueue::isCurrent() const noexcept {
  return tDraining == this;
}

std::size_t RunLoopQueue::runDueItemsHere() noexcept {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->depth > 0 && state_->drainer != std::this_thread::get_id())
      return 0;
    state_->drainer = std::this_thread::get_id();
    ++state_->depth;
  }
  return runDueItems();
}

std::size_t RunLoopQueue::drain() {
  {
    std::lock_guard lock(state_->mutex);
    state_->drainer = std::this_thread::get_id();
    ++state_->depth;
  }
  return runDueItems();
}

// Runs what is due, then leaves the queue that drain() or runDueItemsHere() entered.
std::size_t RunLoopQueue::runDueItems() noexcept {
  std::size_t ran = 0;
  const auto* previous = tDraining;
  tDraining = this;
  for (;;) {
    platform::Work work;
    {
      std::lock_guard lock(state_->mutex);
      if (state_->items.empty() ||
          state_->items.begin()->first.first > std::chrono::steady_clock::now()) {
        break;
      }
      work = std::move(state_->items.begin()->second);
      state_->items.erase(state_->items.begin());
    }
    try {
      work();
    } catch (...) {
    }
    ++ran;
  }
  {
    std::lock_guard lock(state_->mutex);
    --state_->depth;
  }
  tDraining = previous;
  return ran;
}

std::optional<std::chrono::nanoseconds> RunLoopQueue::timeUntilNextItem() const {
  std::lock_guard lock(state_->mutex);
  if (state_->items.empty())
    return std::nullopt;
  const auto wait = state_->items.begin()->first.first - std::chrono::steady_clock::now();
  return std::max(std::chrono::nanoseconds(0),
                  std::chrono::duration_cast<std::chrono::nanoseconds>(wait));
}

}  // namespace quorvel
