#include "platform/posix/ThreadQueue.h"

#include <pthread.h>

namespace quorvel::platform {
namespace {
thread_local const ThreadQueue* tCurrentQueue = nullptr;
}  // namespace

ThreadQueue::ThreadQueue(std::string label, unsigned threadCount, std::string threadName)
    : label_(std::move(label)) {
  const std::string name = (threadName.empty() ? label_ : threadName).substr(0, 15);
  const unsigned count = threadCount == 0 ? 1 : threadCount;
  threads_.reserve(count);
  for (unsigned i = 0; i < count; ++i) {
    threads_.emplace_back([this] { run(); });
    // Thread names are limited to 15 characters.
    pthread_setname_np(threads_.back().native_handle(), name.c_str());
  }
}

ThreadQueue::~ThreadQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto& t : threads_) {
    if (t.get_id() == std::this_thread::get_id()) {
      t.detach();  // the last owner let go from inside one of our own items
    } else if (t.joinable()) {
      t.join();
    }
  }
}

void ThreadQueue::async(Work work) noexcept { enqueue(std::chrono::steady_clock::now(), std::move(work)); }

void ThreadQueue::asyncAfter(std::chrono::nanoseconds delay, Work work) noexcept {
  const auto clamped = delay.count() < 0 ? std::chrono::nanoseconds(0) : delay;
  enqueue(std::chrono::steady_clock::now() +
              std::chrono::duration_cast<std::chrono::steady_clock::duration>(clamped),
          std::move(work));
}

bool ThreadQueue::isCurrent() const noexcept { return tCurrentQueue == this; }

void ThreadQueue::enqueue(SteadyTime due, Work work) noexcept {
  if (!work) return;
  try {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      items_.push(Item{due, nextSequence_++, std::move(work)});
    }
    wake_.notify_one();
  } catch (...) {
    // Out of memory: the item is lost, the caller is never disturbed.
  }
}

void ThreadQueue::run() {
  tCurrentQueue = this;
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (items_.empty()) {
      wake_.wait(lock);
      continue;
    }
    const SteadyTime due = items_.top().due;
    if (due > std::chrono::steady_clock::now()) {
      wake_.wait_until(lock, due);
      continue;
    }
    Work work = std::move(const_cast<Item&>(items_.top()).work);
    items_.pop();
    lock.unlock();
    try {
      work();
    } catch (...) {
      // A work item that throws must not take the queue down with it.
    }
    work = nullptr;
    lock.lock();
  }
}

}  // namespace quorvel::platform
