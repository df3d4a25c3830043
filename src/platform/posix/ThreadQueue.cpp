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

  State(std::string name, unsigned maxThreads, std::optional<std::chrono::milliseconds> idle)
      : threadName(std::move(name)), maxThreads(maxThreads), idleTime(idle) {}

  const std::string threadName;
  const unsigned maxThreads;
  const std::optional<std::chrono::milliseconds> idleTime;
  std::mutex mutex;
  std::condition_variable wake;
  std::condition_variable ended;  // a thread ended (the destructor waits for the last)
  std::priority_queue<Item, std::vector<Item>, Later> items;
  std::uint64_t nextSequence = 0;
  unsigned threads = 0;  // alive
  unsigned waiting = 0;  // alive and waiting for work
  bool stopping = false;

  void enqueue(const std::shared_ptr<State>& self, SteadyTime due, Work work) noexcept;
  // A new thread, when every thread is busy and there is room for one; the lock is held.
  void startThreadIfNeededLocked(const std::shared_ptr<State>& self);
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
      ++state->waiting;
      bool idleTooLong = false;
      if (state->idleTime) {
        idleTooLong = !state->wake.wait_for(
            lock, *state->idleTime, [&] { return state->stopping || !state->items.empty(); });
      } else {
        state->wake.wait(lock);
      }
      --state->waiting;
      if (idleTooLong)
        break;  // nothing came for the idle time: the thread ends, the next item starts one
      continue;
    }
    Work work = takeDueItem(*state);
    if (!work) {
      // A copy: the wait reads its deadline again after waking, when a push may have moved
      // the item it came from.
      const auto due = state->items.top().due;
      ++state->waiting;
      state->wake.wait_until(lock, due);
      --state->waiting;
      continue;
    }
    // More due work than this thread: another one takes it meanwhile.
    if (!state->items.empty() && state->items.top().due <= std::chrono::steady_clock::now())
      state->startThreadIfNeededLocked(state);
    lock.unlock();
    runItem(work);
    lock.lock();
  }
  --state->threads;
  tCurrentQueue = nullptr;
  state->ended.notify_all();
}
}  // namespace

void ThreadQueue::State::startThreadIfNeededLocked(const std::shared_ptr<State>& self) {
  if (stopping || waiting > 0 || threads >= maxThreads)
    return;
  try {
    std::thread thread([self] { serve(self); });
    pthread_setname_np(thread.native_handle(), threadName.c_str());
    // Detached: a thread ends by itself, and the destructor waits for the count to fall.
    thread.detach();
    ++threads;
  } catch (...) {
    // No thread now: the next item tries again.
  }
}

void ThreadQueue::State::enqueue(const std::shared_ptr<State>& self, SteadyTime due,
                                 Work work) noexcept {
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
      startThreadIfNeededLocked(self);
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

ThreadQueue::ThreadQueue(std::string label, unsigned threadCount, std::string threadName,
                         std::optional<std::chrono::milliseconds> idleTime)
    : label_(std::move(label)),
      state_(std::make_shared<State>((threadName.empty() ? label_ : threadName).substr(0, 15),
                                     threadCount == 0 ? 1 : threadCount, idleTime)) {}

ThreadQueue::~ThreadQueue() {
  std::unique_lock lock(state_->mutex);
  state_->stopping = true;
  // Items not yet started are dropped outside the lock: their captures may queue more.
  std::priority_queue<State::Item, std::vector<State::Item>, State::Later> pending;
  pending.swap(state_->items);
  state_->wake.notify_all();
  // A thread of this queue destroying it finishes its item and ends by itself.
  const unsigned own = isCurrent() ? 1 : 0;
  state_->ended.wait(lock, [&] { return state_->threads <= own; });
  lock.unlock();
}

void ThreadQueue::async(Work work) noexcept {
  state_->enqueue(state_, std::chrono::steady_clock::now(), std::move(work));
}

void ThreadQueue::asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept {
  const auto clamped = delay.count() < 0 ? std::chrono::nanoseconds(0) : delay;
  state_->enqueue(state_,
                  std::chrono::steady_clock::now() +
                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(clamped),
                  std::move(work));
}

bool ThreadQueue::isCurrent() const noexcept {
  return tCurrentQueue == state_.get();
}

std::size_t ThreadQueue::threadCount() const noexcept {
  std::lock_guard lock(state_->mutex);
  return state_->threads;
}

std::size_t ThreadQueue::runDueItemsHere() noexcept {
  if (state_->maxThreads != 1 || !isCurrent())
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
