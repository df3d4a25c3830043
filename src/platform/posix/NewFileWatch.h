// Tells, from a thread of its own, the name of each file made in (or moved into) a folder. The
// holder of the data directory learns this way, at once and without looking every so often,
// that another process has begun keeping reports for it, or has stopped or forgotten the
// install: an idle library wakes for nothing else. The thread sleeps in the kernel until a
// file is made there.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace quorvel::platform {

class NewFileWatch {
 public:
  // Null when there is no such folder or no thread to be had: the caller then finds new files
  // only when it looks itself. An empty name: any file may have been made (the kernel lost
  // events, or, with no inotify instance left, at a look every few seconds), or a lock file
  // was removed (the folder emptied under the process). `onNewFile` runs on
  // the watch's thread and must not wait for anything that stops the watch.
  static std::unique_ptr<NewFileWatch> start(const std::string& folder,
                                             std::function<void(std::string_view)> onNewFile);
  // Ends the watch; `onNewFile` is not called once it returned (unless it runs on the watch's
  // own thread, from `onNewFile` itself: that call finishes, and the thread ends after it).
  ~NewFileWatch();
  NewFileWatch(const NewFileWatch&) = delete;
  NewFileWatch& operator=(const NewFileWatch&) = delete;

  // What the thread uses: shared with it, so that a thread left to end by itself outlives
  // the watch safely.
  struct State;

 private:
  explicit NewFileWatch(std::shared_ptr<State> state) noexcept;

  std::shared_ptr<State> state_;
  std::unique_ptr<std::thread> thread_;
  std::uint64_t forkGeneration_;
};

}  // namespace quorvel::platform
