// QuorvelProxyManager: collects the library's log lines for the remote-debugging upload.
//
// Collection starts switched on so that lines written before the service's first answer
// (the pre-launch data) are kept; the answer's "monitor" value then starts or stops it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <quorvel/Json.h>
#include <quorvel/Platform.h>
#include <quorvel/platform/Clock.h>

namespace quorvel {

// Who the upload is about: asked of the tracker only when the static block is not stored yet
// (reading the identifier can create it).
struct RemoteDebuggingIdentity {
  std::string quorvelUID;
  std::string advertiserId;
  std::string sdkVersion;
  std::optional<std::string> devKey;
  std::optional<std::string> appleAppID;
};
using RemoteDebuggingIdentitySource = std::function<RemoteDebuggingIdentity()>;

class QuorvelProxyManager {
 public:
  // The process-wide manager, created once and never destroyed.
  static QuorvelProxyManager& sharedManager();

  // `clock` dates the collected lines; nullptr uses the system clock (see setClock).
  explicit QuorvelProxyManager(std::shared_ptr<const platform::Clock> clock = nullptr);
  QuorvelProxyManager(const QuorvelProxyManager&) = delete;
  QuorvelProxyManager& operator=(const QuorvelProxyManager&) = delete;

  // True while lines are collected: enabled by the service, or not yet stopped locally.
  bool isRemoteDebugging() const noexcept {
    return proxyEnabledFromServer_.load(std::memory_order_relaxed) ||
           shouldCollectDebugData_.load(std::memory_order_relaxed);
  }

  // Appends one raw line, prefixed with the local time, unless collection is off or the
  // buffer already holds REMOTE_DEBUGGING_REQUEST_MAX_SIZE_KB bytes. Any thread.
  void addEventWithString(const std::string& line);
  // The same, dated by `clock` (the logger's that mirrors the line).
  void addEventWithString(const std::string& line,
                          const std::shared_ptr<const platform::Clock>& clock);
  // The clock that dates the lines added without one; the system clock until set.
  void setClock(std::shared_ptr<const platform::Clock> clock);

  void startRemoteDebugging();
  void stopRemoteDebugging();
  void clearData();
  // The collected lines, the static block (who the install is) and the service's request to
  // collect go: a fresh install starts without them.
  void forgetInstall();
  void dropPreLaunchData();

  bool proxyEnabledFromServer() const noexcept {
    return proxyEnabledFromServer_.load(std::memory_order_relaxed);
  }
  void setProxyEnabledFromServer(bool enabled) noexcept {
    proxyEnabledFromServer_.store(enabled, std::memory_order_relaxed);
  }

  // --- The upload ---------------------------------------------------------------------
  // Fills the static block: gathered once per installation and kept in the preferences
  // under "remote_debug_static_data"; later only "launch_counter" is refreshed.
  void loadStaticData(const Platform& platform, const RemoteDebuggingIdentitySource& identity);
  // The upload document: the static block with the collected lines under "data".
  std::optional<std::string> getJSONString();
  // Loads the static block, hands the document to `upload` and empties the buffer.
  void sendRemoteDebuggingData(const Platform& platform,
                               const RemoteDebuggingIdentitySource& identity,
                               const std::function<void(const std::string&)>& upload);

  void setDeviceDataWithModel(const std::optional<std::string>& model,
                              const std::optional<std::string>& osVersion,
                              const std::optional<std::string>& advId);
  void setSDKDataWithVersion(const std::optional<std::string>& version,
                             const std::optional<std::string>& devKey,
                             const std::optional<std::string>& originalQVUID,
                             const std::optional<std::string>& qvuid,
                             const std::optional<Json>& launchCounter);
  void setAppDataWithAppId(const std::optional<std::string>& appId,
                           const std::optional<std::string>& appVersion);
  Json proxyRdDict() const;

  // A copy of the collected lines, oldest first.
  std::vector<std::string> events() const;
  std::int32_t requestSize() const noexcept { return requestSize_.load(std::memory_order_relaxed); }

 private:
  std::shared_ptr<const platform::Clock> clock() const;

  mutable std::mutex lock_;  // guards events_ and clock_
  std::shared_ptr<const platform::Clock> clock_;
  std::vector<std::string> events_;
  Json proxyRdDict_ = Json::object();  // guarded by lock_
  // Updated without the lock: a race may let the total drift slightly, which is accepted.
  std::atomic<std::int32_t> requestSize_{0};
  // Nothing is collected until the service asks for it ("monitor" 1 in an answer): a log
  // kept from the start would hold lines, and keys, that no service ever asked to see.
  std::atomic<bool> shouldCollectDebugData_{false};
  std::atomic<bool> proxyEnabledFromServer_{false};
};

}  // namespace quorvel
