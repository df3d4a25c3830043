// Backoff: how long the outbox waits before it tries a thing again (a send the service did
// not take, a store that refused a write, a data directory another process holds). One
// formula and one random generator for all of them: the wait doubles from `base` at each
// attempt up to `cap`, and a random share of it, at least `floor` of it, is waited, so that
// many processes that failed at the same moment do not all come back at the same moment.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>

namespace quorvel {

struct Backoff {
  std::chrono::milliseconds base;
  std::chrono::milliseconds cap;
  // The share of the ceiling always waited: 0 is full jitter, 1 a fixed wait.
  double floor = 0.0;

  // The wait before try `attempt` (0 the first), for `unitRandom` in [0, 1].
  std::chrono::milliseconds delay(int attempt, double unitRandom) const {
    const int shift = std::clamp(attempt, 0, 30);
    const auto ceiling = std::min(cap, base * (std::int64_t{1} << shift));
    const double share = floor + (1.0 - floor) * std::clamp(unitRandom, 0.0, 1.0);
    return std::chrono::milliseconds(
        static_cast<std::int64_t>(share * static_cast<double>(ceiling.count())));
  }
};

// A number in [0, 1) from this thread's generator; no more than jitter needs.
inline double backoffRandom() {
  static thread_local std::minstd_rand generator(
      static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
  return std::uniform_real_distribution<double>(0.0, 1.0)(generator);
}

// A service's answer asked for another try: from 2 s up to a quarter hour, nearly full jitter.
// At least 1 % of the ceiling: a draw near 0 sent the copy back the moment it failed.
inline constexpr Backoff kRetryBackoff{std::chrono::seconds(2), std::chrono::minutes(15), 0.01};
// Another process holds the data directory: it may be the one before this, still finishing
// its exit, so the first tries come within seconds; one that stays is looked at no more often
// than once a minute.
inline constexpr Backoff kLockBackoff{std::chrono::seconds(1), std::chrono::minutes(1), 0.5};
// The store refused a write: a disk that stays full costs a try a minute, one freed is used
// within seconds.
inline constexpr Backoff kRewriteBackoff{std::chrono::seconds(1), std::chrono::minutes(1), 1.0};

}  // namespace quorvel
