// Memory a burst freed, given back to the system when a library thread ends for want of work.
// A burst leaves the allocator holding pages on every thread that took part (10 MB after
// 10,000 events), which the process keeps otherwise until it ends.
#pragma once

namespace quorvel::platform {

// From a library thread that ends after its idle time. Cheap when little is free (a look at
// the allocator's counts); a release that is worth it costs a few ms of this thread.
void workerWentIdle() noexcept;

}  // namespace quorvel::platform
