// OutboxStats: the outbox's counts of reports, as deliveryStats() reports them.
#pragma once

#include <cstdint>

namespace quorvel {

// Counts of this process's reports (and of those it found left by an earlier one).
struct OutboxStats {
  std::uint64_t accepted = 0;   // reports accepted, plus those found at start
  std::uint64_t delivered = 0;  // answered 2xx by the service
  std::uint64_t refused = 0;    // answered 4xx (but 429): final, the service will not take it
  std::uint64_t retrying = 0;   // answered 5xx or 429, waiting to go again
  // Reports whose record could not be written when they were made (a full or read-only
  // disk): they went from memory, and were lost if the process ended before their answer.
  std::uint64_t notKept = 0;
  std::uint64_t droppedUnreadable = 0;  // records of an earlier run that could not be read
  std::uint64_t waiting = 0;            // in the outbox now, or on their way into it
  std::uint64_t droppedForBytes = 0;
  std::uint64_t droppedForAge = 0;
  std::uint64_t droppedByRule = 0;   // a launch too soon after the last, no developer key
  std::uint64_t repeated = 0;        // requests sent again after an earlier process had sent them
  std::uint64_t handedToFolder = 0;  // failed in transport and kept in the kept-request folder
};

}  // namespace quorvel
