// Memory a burst freed, given back to the system when a library thread ends for want of work.
// A burst leaves the allocator holding pages on every thread that took part (10 MB after
// 10,000 events), which the process keeps otherwise until it ends.
#pragma once

namespace quorvel::platform {

// From a library thread that ends after its idle time. Cheap unless the process grew by a
// megabyte since the last release (a read of its counts); a release costs this thread tens
// of ms after a large burst.
void workerWentIdle() noexcept;

}  // namespace quorvel::platform
