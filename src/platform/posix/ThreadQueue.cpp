#include "platform/posix/ThreadQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <queue>

namespace quorvel::platform {

struct ThreadQueue::State {
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

  std::mutex mutex;
  std::condition_variable wake;
  std::priority_queue<Item, std::vector<Item>, Later> items;
  std::uint64_t nextSequence = 0;
  bool stopping = false;

  void enqueue(SteadyTime due, Work work) noexcept {
    if (!work)
      return;
    try {
      bool earliest = false;
      {
        std::lock_guard lock(mutex);
        if (stopping)
          return;
        earliest = items.empty() || due < items.top().due;
        items.push(Item{due, nextSequence++, std::move(work)});
      }
      // A thread that waits does so for the earliest item, or for any when there is none:
      // only a new earliest item changes what it waits for. Waking it for every item made a
      // burst of host calls pay a system call each.
      if (earliest)
        wake.notify_one();
    } catch (...) {
      // Out of memory: the item is lost, the caller is never disturbed.
    }
  }
};

namespace {
thread_local const ThreadQueue::State* tCurrentQueue = nullptr;

// Takes the first item if it is due; the lock is held.
Work takeDueItem(ThreadQueue::State& state) {
  if (state.items.empty() || state.items.top().due > std::chrono::steady_clock::now())
    return nullptr;
  Work work = std::move(const_cast<ThreadQueue::State::Item&>(state.items.top()).work);
  state.items.pop();
  return work;
}

void runItem(Work& work) noexcept {
  try {
    work();
  } catch (...) {
    // A work item that throws must not take the queue down with it.
  }
  work = nullptr;
}

void serve(const std::shared_ptr<ThreadQueue::State>& state) {
  tCurrentQueue = state.get();
  std::unique_lock lock(state->mutex);
  while (!state->stopping) {
    if (state->items.empty()) {
      state->wake.wait(lock);
      continue;
    }
    Work work = takeDueItem(*state);
    if (!work) {
      // A copy: the wait reads its deadline again after waking, when a push may have moved
      // the item it came from.
      const auto due = state->items.top().due;
      state->wake.wait_until(lock, due);
      continue;
    }
    lock.unlock();
    runItem(work);
    lock.lock();
  }
  tCurrentQueue = nullptr;
}
}  // namespace

ThreadQueue::ThreadQueue(std::string label, unsigned threadCount, std::string threadName)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
  const std::string name = (threadName.empty() ? label_ : threadName).substr(0, 15);
  const unsigned count = threadCount == 0 ? 1 : threadCount;
  threads_.reserve(count);
  for (unsigned i = 0; i < count; ++i) {
    threads_.emplace_back([state = state_] { serve(state); });
    pthread_setname_np(threads_.back().native_handle(), name.c_str());
  }
}

ThreadQueue::~ThreadQueue() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  for (auto& t : threads_) {
    if (t.get_id() == std::this_thread::get_id()) {
      t.detach();
    } else if (t.joinable()) {
      t.join();
    }
  }
}

void ThreadQueue::async(Work work) noexcept {
  state_->enqueue(std::chrono::steady_clock::now(), std::move(work));
}

void ThreadQueue::asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept {
  const auto clamped = delay.count() < 0 ? std::chrono::nanoseconds(0) : delay;
  state_->enqueue(std::chrono::steady_clock::now() +
                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(clamped),
                  std::move(work));
}

bool ThreadQueue::isCurrent() const noexcept {
  return tCurrentQueue == state_.get();
}

std::size_t ThreadQueue::runDueItemsHere() noexcept {
  if (threads_.size() != 1 || !isCurrent())
    return 0;
  std::size_t ran = 0;
  for (;;) {
    Work work;
    {
      std::lock_guard lock(state_->mutex);
      if (state_->stopping)
        break;
      work = takeDueItem(*state_);
    }
    if (!work)
      break;
    runItem(work);
    ++ran;
  }
  return ran;
}

}  // namespace quorvel::platform
