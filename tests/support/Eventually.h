// Waiting for real I/O in integration tests: checks a condition until it holds, within a
// bound. Never used for time-dependent behaviour, which unit tests drive on virtual time.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace quorvel::test {

inline bool eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds bound = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (std::chrono::steady_clock::now() < deadline) {
    if (done())
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return done();
}

}  // namespace quorvel::test
