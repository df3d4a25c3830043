#include "log/QuorvelProxyManager.h"

#include <quorvel/Logger.h>
#include <quorvel/Platform.h>
#include <quorvel/RemoteDebugging.h>

#include "util/DateFormatter.h"
#include "util/NoDestructor.h"
#include "util/QuorvelUtils.h"

namespace quorvel {

QuorvelProxyManager& QuorvelProxyManager::sharedManager() {
  static NoDestructor<QuorvelProxyManager> manager;
  return manager.get();
}

QuorvelProxyManager::QuorvelProxyManager(std::shared_ptr<const platform::Clock> clock)
    : clock_(std::move(clock)) {}

std::shared_ptr<const platform::Clock> QuorvelProxyManager::clock() const {
  return clock_ ? clock_ : currentPlatform()->clock;
}

void QuorvelProxyManager::addEventWithString(const std::string& line) {
  if (!isRemoteDebugging() ||
      requestSize_.load(std::memory_order_relaxed) >= REMOTE_DEBUGGING_REQUEST_MAX_SIZE_KB) {
    return;
  }
  const auto clk = clock();
  const QVDateFormatter formatter = QuorvelUtils::getDateFormatterForRemoteDebug(clk);
  std::string stored = format("%18@ %@", formatter.stringFromDate(clk->now()), line);
  requestSize_.fetch_add(static_cast<std::int32_t>(stored.size()), std::memory_order_relaxed);
  std::lock_guard guard(lock_);
  events_.push_back(std::move(stored));
}

void QuorvelProxyManager::startRemoteDebugging() {
  addEventWithString("Turning ON RD");
  shouldCollectDebugData_.store(true, std::memory_order_relaxed);
  proxyEnabledFromServer_.store(true, std::memory_order_relaxed);
}

void QuorvelProxyManager::stopRemoteDebugging() {
  addEventWithString("Turning OFF RD");
  shouldCollectDebugData_.store(false, std::memory_order_relaxed);
  proxyEnabledFromServer_.store(false, std::memory_order_relaxed);
}

void QuorvelProxyManager::clearData() {
  std::lock_guard guard(lock_);
  events_.clear();
  requestSize_.store(0, std::memory_order_relaxed);
}

void QuorvelProxyManager::dropPreLaunchData() { clearData(); }

std::vector<std::string> QuorvelProxyManager::events() const {
  std::lock_guard guard(lock_);
  return events_;
}

namespace detail {

void addLogEventFormatted(int level, const char* method, const std::string& message) noexcept {
  try {
    const std::string line = format("(%@) %@ %s: %@", timeToString(), levelToString(level),
                                    method != nullptr ? method : "", message);
    QuorvelProxyManager::sharedManager().addEventWithString(line);
  } catch (...) {
  }
}

}  // namespace detail
}  // namespace quorvel
