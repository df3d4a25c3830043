// Which process image this is, as fork() sees it: 0 in the process that loaded the library, one
// more in each child made by fork() since. A child's copy of a tracker has none of the threads
// that drive it, and shares its parent's open outbox: a tracker made before the fork stays
// inert there, and the child makes its own when it wants one.
#pragma once

#include <cstdint>
#include <memory>

namespace quorvel::platform {

std::uint64_t forkGeneration() noexcept;

// Keeps, for the rest of this process, an object a forked child must not destroy: its
// destructor would take locks or wait for threads of the parent that did not come along, and
// so hang the child. Kept reachable, not leaked; takes no lock.
void keepForkOrphan(std::shared_ptr<void> object) noexcept;

// Runs `lock` before every fork and `unlock` after it, in the parent and in the child, so that
// what `lock` guards is never inherited held by a thread that did not come along.
void lockAcrossForks(void (*lock)(), void (*unlock)()) noexcept;

}  // namespace quorvel::platform
