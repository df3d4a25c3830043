// Lets work that a tracker queued reach it only while it is alive.
//
// Queued blocks and request completions hold the lifetime, not the tracker. `pin()` gives
// the tracker for the length of one call; `end()`, run by the tracker's destructor, makes
// later pins empty and waits for the pins still held. Only trackers built for tests are
// ever destroyed (the shared one lives as long as the process), so the wait is short, and a
// tracker must not be destroyed from inside one of its own callbacks.
#pragma once

#include <condition_variable>
#include <mutex>

namespace quorvel {

class TrackerCore;

class TrackerLifetime {
 public:
  class Pin {
   public:
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;
    ~Pin() {
      if (tracker_ != nullptr)
        owner_.release();
    }
    explicit operator bool() const { return tracker_ != nullptr; }
    TrackerCore* operator->() const { return tracker_; }
    TrackerCore& operator*() const { return *tracker_; }

   private:
    friend class TrackerLifetime;
    Pin(TrackerLifetime& owner, TrackerCore* tracker) : owner_(owner), tracker_(tracker) {}
    TrackerLifetime& owner_;
    TrackerCore* tracker_;
  };

  explicit TrackerLifetime(TrackerCore* tracker) : tracker_(tracker) {}

  Pin pin() {
    const std::lock_guard lock(mutex_);
    if (tracker_ != nullptr)
      ++pins_;
    return Pin(*this, tracker_);
  }

  void end() {
    std::unique_lock lock(mutex_);
    tracker_ = nullptr;
    released_.wait(lock, [this] { return pins_ == 0; });
  }

 private:
  void release() {
    const std::lock_guard lock(mutex_);
    if (--pins_ == 0)
      released_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable released_;
  TrackerCore* tracker_;
  int pins_ = 0;
};

}  // namespace quorvel
