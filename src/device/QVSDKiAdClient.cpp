#include "device/QVSDKiAdClient.h"

#include <quorvel/platform/SearchAds.h>

#include "log/Log.h"

namespace quorvel {
namespace {
constexpr const char* kADClient = "ADClient";
constexpr const char* kASIdentifierManager = "ASIdentifierManager";
constexpr const char* kPrefix = "[QVSDK.iAD]: ";

Json errorResult(const std::string& text) {
  return Json{{"error", text}};
}
}  // namespace

QVSDKiAdClient::QVSDKiAdClient(std::shared_ptr<const Platform> platform,
                               std::shared_ptr<const Log> log)
    : platform_(std::move(platform)), log_(std::move(log)) {}

void QVSDKiAdClient::printLinkDependances() const {
  static constexpr const char* kMethod = "-[QVSDKiAdClient printLinkDependances]";
  const auto& registry = *platform_->classRegistry;
  const bool hasAdSupport = registry.classNamed(kASIdentifierManager) != nullptr;
  const bool hasIAd = registry.classNamed(kADClient) != nullptr;
  if (!hasAdSupport) {
    log_->log(kLogDebug, kMethod, "%@AdSupport.framework is missing", kPrefix);
  } else if (!hasIAd) {
    // With both frameworks present this line is not written.
    log_->log(kLogDebug, kMethod, "%@AdSupport.framework exists", kPrefix);
  }
  if (hasIAd) {
    log_->log(kLogDebug, kMethod, "%@iAd.framework exists", kPrefix);
  } else {
    log_->log(kLogDebug, kMethod, "%@iAd.framework is missing", kPrefix);
  }
}

void QVSDKiAdClient::requestAttributionDetails(Completion completion) const {
  executeAttributionRequest(kAttempts, [completion = std::move(completion)](const Json& result) {
    if (completion)
      completion(result);
  });
}

void QVSDKiAdClient::executeAttributionRequest(int attemptsLeft, Completion completion) const {
  schedule(platform_, attemptsLeft, std::move(completion));
}

void QVSDKiAdClient::schedule(const std::shared_ptr<const Platform>& platform, int attemptsLeft,
                              Completion completion) {
  if (attemptsLeft <= 0) {
    if (completion)
      completion(errorResult("ADClientErrorUnknown"));
    return;
  }
  // The work holds the platform, not the client: the client may go before its answer.
  platform->dispatcher->globalQueue()->asyncAfter(
      kRetryDelay, [platform, attemptsLeft, completion = std::move(completion)] {
        attempt(platform, attemptsLeft - 1, completion);
      });
}

void QVSDKiAdClient::attempt(const std::shared_ptr<const Platform>& platform, int attemptsLeft,
                             const Completion& completion) {
  const auto entry = platform->classRegistry->classNamed(kADClient);
  const auto clientClass = std::dynamic_pointer_cast<platform::SearchAdsClientClass>(entry);
  if (!clientClass) {
    completion(errorResult("ADClient not loaded"));
    return;
  }
  const auto client = clientClass->sharedClient();
  if (!client) {
    completion(errorResult("requestAttributionDetailsWithBlock not respondsToSelector"));
    return;
  }
  client->requestAttributionDetailsWithBlock(
      [platform, attemptsLeft, completion](const std::optional<Json>& details,
                                           const std::optional<Error>& error) {
        if (!error) {
          // No error and no details: the request ends without an answer.
          if (details && !details->is_null())
            completion(*details);
          return;
        }
        if (error->code != 0) {
          completion(errorResult(error->localizedDescription));
          return;
        }
        schedule(platform, attemptsLeft, completion);
      });
}

}  // namespace quorvel
