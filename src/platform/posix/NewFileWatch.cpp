// The folder is watched with inotify, for files made in it or moved into it; a second
// descriptor (an eventfd) ends the wait when the watch goes. Both are closed in a child made
// by fork(), which has no copy of the thread.
#include "platform/posix/NewFileWatch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/ForkGeneration.h"
#include "platform/ParentOnlyDescriptor.h"

namespace quorvel::platform {

struct NewFileWatch::State {
  ParentOnlyDescriptor watch;
  ParentOnlyDescriptor stop;
  std::atomic<bool> stopped{false};  // set before the thread is told: no call after it
  std::function<void(std::string_view)> onNewFile;
};

namespace {

// Tells every event waiting; false at the end of the watch (its descriptor gone).
bool tellEvents(const NewFileWatch::State& state) noexcept {
  alignas(inotify_event) std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t length = ::read(state.watch.get(), buffer.data(), buffer.size());
    if (length < 0)
      return errno == EAGAIN || errno == EINTR;
    if (length == 0)
      return false;
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= length;) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      const char* const name = buffer.data() + at + sizeof event;
      // Events the kernel could not queue are told as an empty name: look at everything; so is
      // the removal of a lock file (the folder emptied under the process: the lock is to be
      // taken again). The folder's own removal would be told only once its open files closed.
      const bool removed = (event.mask & IN_DELETE) != 0;
      const bool overflow =
          (event.mask & IN_Q_OVERFLOW) != 0 ||
          (removed && std::string_view(name, ::strnlen(name, event.len)).ends_with(".lock"));
      if (((event.len > 0 && !removed) || overflow) && !state.stopped.load()) {
        try {
          state.onNewFile(overflow ? std::string_view()
                                   : std::string_view(name, ::strnlen(name, event.len)));
        } catch (...) {
          // The watch goes on: the next file is told again.
        }
      }
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
  }
}

// Without inotify (every instance the user may have is taken) the folder is not watched but
// looked at: the caller hears "any file may have been made" a second after the watch began,
// then less often, up to every 8 s, so that a guest's reports or another process's stop still
// reach an idle holder within seconds, at a few wake-ups a minute.
constexpr int kFirstLookMs = 1000;
constexpr int kLastLookMs = 8000;

void watchUntilStopped(const std::shared_ptr<const NewFileWatch::State>& state) noexcept {
  // A negative descriptor is skipped by poll(): only the stop is waited for then.
  std::array<pollfd, 2> fds{{{state->watch.get(), POLLIN, 0}, {state->stop.get(), POLLIN, 0}}};
  const bool looking = state->watch.get() < 0;
  int timeout = looking ? kFirstLookMs : -1;
  for (;;) {
    const int ready = ::poll(fds.data(), fds.size(), timeout);
    if (ready < 0) {
      if (errno == EINTR)
        continue;
      return;
    }
    if (fds[1].revents != 0)
      return;
    if (ready == 0 && !state->stopped.load()) {
      try {
        state->onNewFile(std::string_view());
      } catch (...) {
        // Looked at again at the next turn.
      }
      timeout = std::min(timeout * 2, kLastLookMs);
    }
    if (fds[0].revents != 0 && !tellEvents(*state))
      return;
  }
}

}  // namespace

std::unique_ptr<NewFileWatch> NewFileWatch::start(const std::string& folder,
                                                  std::function<void(std::string_view)> onNewFile) {
  auto state = std::make_shared<State>();
  state->stop = ParentOnlyDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (state->stop.get() < 0)
    return nullptr;
  state->watch = ParentOnlyDescriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (state->watch.get() >= 0 &&
      ::inotify_add_watch(state->watch.get(), folder.c_str(),
                          IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_ONLYDIR) < 0) {
    if (errno == ENOENT || errno == ENOTDIR)
      return nullptr;                       // no such folder to look at either
    state->watch = ParentOnlyDescriptor();  // no watch left: looked at instead
  }
  state->onNewFile = std::move(onNewFile);
  try {
    std::unique_ptr<NewFileWatch> watch(new NewFileWatch(state));
    watch->thread_ = std::make_unique<std::thread>(
        [shared = std::shared_ptr<const State>(std::move(state))] { watchUntilStopped(shared); });
    pthread_setname_np(watch->thread_->native_handle(), "quorvel.watch");
    return watch;
  } catch (...) {
    return nullptr;  // no thread to be had
  }
}

NewFileWatch::NewFileWatch(std::shared_ptr<State> state) noexcept
    : state_(std::move(state)), forkGeneration_(forkGeneration()) {}

NewFileWatch::~NewFileWatch() {
  if (!thread_)
    return;
  if (forkGeneration() != forkGeneration_) {
    // A forked child has no copy of the thread: its object is let go, never joined.
    static_cast<void>(thread_.release());
    return;
  }
  state_->stopped = true;
  const std::uint64_t one = 1;
  static_cast<void>(::write(state_->stop.get(), &one, sizeof one));
  if (thread_->get_id() == std::this_thread::get_id())
    thread_->detach();  // from its own callback: it ends by itself once that returns
  else
    thread_->join();
}

}  // namespace quorvel::platform
