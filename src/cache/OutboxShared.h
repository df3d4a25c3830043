// What the outbox's files share: the name its log lines go under, its timing and batch
// constants, the number of the counters' record, and time as its records write it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include <quorvel/platform/Clock.h>

#include "log/Log.h"

namespace quorvel::outbox_internal {

inline constexpr const char* kMethod = "-[QuorvelOutbox write]";
inline constexpr std::chrono::seconds kSyncInterval{1};
// Well within the promise of a record on disk 10 ms after the call.
inline constexpr std::chrono::microseconds kBatchWindow{500};
// A burst's calls go in batches of a bounded size, so that no batch holds the whole burst
// serialised in memory at once.
inline constexpr std::size_t kMaxBatch = 512;
// The promise: a report is on its way to the disk (written to the kernel) this soon.
inline constexpr std::chrono::milliseconds kPromptWrite{10};
// The record that keeps the counters; reports are numbered from 1.
inline constexpr std::int64_t kCountersRecord = 0;

// Said once an episode when the store cannot take writes, at open or later.
inline constexpr const char* kNotKeptWarning =
    "Quorvel outbox unavailable (%@): reports are not kept on disk and go from memory; those "
    "unanswered when the process ends are lost. It is tried again";

inline void logDroppedForAge(const Log& log, std::size_t count, std::chrono::seconds maxAge) {
  log.log(kLogWarning, kMethod, "Quorvel outbox: %lu reports older than %lld s dropped",
          static_cast<unsigned long>(count), static_cast<long long>(maxAge.count()));
}

inline double seconds(platform::TimePoint t) {
  return platform::secondsSince1970(t);
}

}  // namespace quorvel::outbox_internal
