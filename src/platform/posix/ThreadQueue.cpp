#include "platform/posix/ThreadQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <mutex>

#include "platform/posix/DueItems.h"
#include "platform/posix/IdleMemory.h"

namespace quorvel::platform {

struct ThreadQueue::State {
  using SteadyTime = DueItems::Clock::time_point;

  State(std::string name, unsigned maxThreads, std::optional<std::chrono::milliseconds> idle)
      : threadName(std::move(name)), maxThreads(maxThreads), idleTime(idle) {}

  const std::string threadName;
  const unsigned maxThreads;
  const std::optional<std::chrono::milliseconds> idleTime;
  std::mutex mutex;
  std::condition_variable wake;
  std::condition_variable ended;  // a thread ended (the destructor waits for the last)
  DueItems items;
  unsigned threads = 0;  // alive
  unsigned waiting = 0;  // alive and waiting for work
  bool stopping = false;

  void enqueue(const std::shared_ptr<State>& self, SteadyTime due, Work work) noexcept;
  // A new thread, when every thread is busy and there is room for one; the lock is held.
  void startThreadIfNeededLocked(const std::shared_ptr<State>& self);
};

namespace {
thread_local const ThreadQueue::State* tCurrentQueue = nullptr;

void serve(const std::shared_ptr<ThreadQueue::State>& state) {
  tCurrentQueue = state.get();
  std::unique_lock lock(state->mutex);
  bool idleTooLong = false;
  while (!state->stopping) {
    if (state->items.empty()) {
      ++state->waiting;
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
    Work work = state->items.takeDue();
    if (!work) {
      const auto due = state->items.firstDue();
      ++state->waiting;
      state->wake.wait_until(lock, due);
      --state->waiting;
      continue;
    }
    // More due work than this thread: another one takes it meanwhile.
    if (!state->items.empty() && state->items.firstDue() <= DueItems::Clock::now())
      state->startThreadIfNeededLocked(state);
    lock.unlock();
    runItem(work);
    lock.lock();
  }
  --state->threads;
  tCurrentQueue = nullptr;
  state->ended.notify_all();
  lock.unlock();
  if (idleTooLong)
    workerWentIdle();
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
    // Held across the wake when there is one: the item may run, drop the last reference to
    // its own queue and end its thread before this call reaches `wake`.
    std::shared_ptr<State> waking;
    {
      std::lock_guard lock(mutex);
      if (stopping)
        return;
      if (items.push(due, std::move(work)))
        waking = self;
      startThreadIfNeededLocked(self);
    }
    // A thread that waits does so for the earliest item, or for any when there is none:
    // only a new earliest item changes what it waits for. Waking it for every item made a
    // burst of host calls pay a system call each.
    if (waking)
      waking->wake.notify_one();
  } catch (...) {
    // Out of memory: the item is lost, the caller is never disturbed.
  }
}

ThreadQueue::ThreadQueue(std::string label, unsigned threadCount, const std::string& threadName,
                         std::optional<std::chrono::milliseconds> idleTime)
    : label_(std::move(label)),
      state_(std::make_shared<State>((threadName.empty() ? label_ : threadName).substr(0, 15),
                                     threadCount == 0 ? 1 : threadCount, idleTime)) {}

ThreadQueue::~ThreadQueue() {
  std::unique_lock lock(state_->mutex);
  state_->stopping = true;
  // Items not yet started are dropped outside the lock: their captures may queue more.
  DueItems pending;
  state_->items.moveAllTo(pending);
  state_->wake.notify_all();
  // A thread of this queue destroying it finishes its item and ends by itself.
  const unsigned own = isCurrent() ? 1 : 0;
  state_->ended.wait(lock, [&] { return state_->threads <= own; });
  lock.unlock();
}

void ThreadQueue::async(Work work) noexcept {
  state_->enqueue(state_, DueItems::Clock::now(), std::move(work));
}

void ThreadQueue::asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept {
  state_->enqueue(state_, DueItems::dueAfter(delay), std::move(work));
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
