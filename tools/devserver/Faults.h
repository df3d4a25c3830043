// The faults the emulator plays on demand, to show and test how the library copes: being
// unreachable for a while, answering a chosen status on a chosen service, answering late.
// Set from the command line at start and through the admin endpoint while running.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace quorvel::devserver {

class Faults {
 public:
  using Clock = std::chrono::steady_clock;
  // "*" as a service name means every service.
  static constexpr const char* kEveryService = "*";
  // Delays are capped so that a typo cannot hold a connection for hours.
  static constexpr std::chrono::milliseconds kMaxDelay{60'000};

  // Refuses connections; for `period` when given, else until goOnline().
  void goOffline(std::optional<std::chrono::milliseconds> period);
  void goOnline();
  bool online(Clock::time_point now) const;

  // Status 0 removes the fault. `retryAfterSeconds` goes out as the answers' Retry-After
  // (an overloaded service's 429 or 503 says when to come back).
  void failService(const std::string& service, int status,
                   std::optional<int> retryAfterSeconds = std::nullopt);
  void delayService(const std::string& service, std::chrono::milliseconds delay);
  void clear();

  std::optional<int> statusFor(const std::string& service) const;
  std::optional<int> retryAfterFor(const std::string& service) const;
  std::chrono::milliseconds delayFor(const std::string& service) const;

  nlohmann::ordered_json describe(Clock::time_point now) const;

  // Waits until a setting changes, `deadline` passes or an offline period ends.
  void waitForChange(Clock::time_point deadline) const;

 private:
  void changed();

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::uint64_t generation_ = 0;
  bool offline_ = false;
  std::optional<Clock::time_point> offlineUntil_;
  std::map<std::string, int> statuses_;
  std::map<std::string, int> retryAfters_;  // seconds, by service
  std::map<std::string, std::chrono::milliseconds> delays_;
};

}  // namespace quorvel::devserver
