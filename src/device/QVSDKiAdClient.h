// QVSDKiAdClient: Search Ads attribution details, with retries while they are not ready.
#pragma once

#include <functional>
#include <memory>

#include <quorvel/Json.h>
#include <quorvel/Platform.h>

namespace quorvel {

class Log;

class QVSDKiAdClient {
 public:
  // Receives the details, or {"error": text}.
  using Completion = std::function<void(const Json& result)>;

  static constexpr int kAttempts = 4;
  static constexpr std::chrono::seconds kRetryDelay{2};

  QVSDKiAdClient(std::shared_ptr<const Platform> platform, std::shared_ptr<const Log> log);

  // Logs which of the two advertising frameworks the application has.
  void printLinkDependances() const;
  // Up to four attempts, each 2 s after the previous answer, on the global queue.
  void requestAttributionDetails(Completion completion) const;
  void executeAttributionRequest(int attemptsLeft, Completion completion) const;

 private:
  static void attempt(const std::shared_ptr<const Platform>& platform, int attemptsLeft,
                      const Completion& completion);
  static void schedule(const std::shared_ptr<const Platform>& platform, int attemptsLeft,
                       Completion completion);

  std::shared_ptr<const Platform> platform_;
  std::shared_ptr<const Log> log_;
};

}  // namespace quorvel
