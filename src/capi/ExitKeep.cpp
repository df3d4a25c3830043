// The C handles a process has not destroyed, kept at its exit: an engine that ends with
// exit() and never destroys its tracker would otherwise lose what it tracked in its last
// milliseconds (the outbox writes a call within 10 ms, not at once).
#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "capi/CTracker.h"
#include "tracker/TrackerCore.h"
#include "util/NoDestructor.h"

namespace quorvel::capi {
namespace {

struct LiveHandles {
  std::mutex mutex;
  std::vector<quorvel_tracker*> handles;
};

// Never destroyed: the exit handler reads it after static destructors may have run.
LiveHandles& live() {
  static NoDestructor<LiveHandles> instance;
  return instance.get();
}

void keepEveryHandle() noexcept {
  std::vector<quorvel_tracker*> entered;
  {
    const std::lock_guard lock(live().mutex);
    // Entered under the lock: a destroy unregisters before it waits for the handle's calls,
    // so a handle still listed here is not freed before this leaves it.
    for (quorvel_tracker* handle : live().handles) {
      if (!handle->inheritedByFork() && handle->calls.enter())
        entered.push_back(handle);
    }
  }
  for (quorvel_tracker* handle : entered) {
    coreOf(*handle->tracker).keepAtExit();
    handle->calls.leave();
  }
}

}  // namespace

void keepAtExit(quorvel_tracker* handle) {
  static std::once_flag registered;
  std::call_once(registered, [] { std::atexit(keepEveryHandle); });
  const std::lock_guard lock(live().mutex);
  live().handles.push_back(handle);
}

void noLongerKeptAtExit(quorvel_tracker* handle) noexcept {
  const std::lock_guard lock(live().mutex);
  std::erase(live().handles, handle);
}

}  // namespace quorvel::capi
