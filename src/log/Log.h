// The logging convention of every call site: the console line, mirrored to the
// remote-debugging buffer while remote debugging is on.
#pragma once

#include <quorvel/Logger.h>
#include <quorvel/RemoteDebugging.h>

#include "log/QuorvelProxyManager.h"

namespace quorvel {

// The library's call sites name levels with these (QVLogLevel's numbers).
enum LogLevel : int {
  kLogError = static_cast<int>(QVLogLevel::error),
  kLogWarning = static_cast<int>(QVLogLevel::warning),
  kLogInfo = static_cast<int>(QVLogLevel::info),
  kLogDebug = static_cast<int>(QVLogLevel::debug),
  kLogTrace = static_cast<int>(QVLogLevel::trace)
};

// Logs at `level` and mirrors the line to the remote buffer when that collects.
template <typename... A>
void qvLog(int level, const char* method, std::string_view fmt, const A&... args) noexcept {
  QVLogLocal(level, method, fmt, args...);
  if (QuorvelProxyManager::sharedManager().isRemoteDebugging()) {
    addLogEvent(level, method, fmt, args...);
  }
}

// True when a debug message would reach the console or the remote buffer; call sites test
// it before building expensive arguments.
inline bool qvDebugWanted() noexcept {
  return kQVLoggerShowLogs.load(std::memory_order_relaxed) ||
         QuorvelProxyManager::sharedManager().isRemoteDebugging();
}

// True when a trace message would reach the console or the remote buffer; call sites test
// it before building expensive arguments.
inline bool qvTraceWanted() noexcept {
  return kQVLoggerShowLogsTrace.load(std::memory_order_relaxed) ||
         QuorvelProxyManager::sharedManager().isRemoteDebugging();
}

// A trace message: printed only with the trace switch on, and recorded twice in the remote
// buffer (at trace and at debug level) while remote debugging is on.
template <typename... A>
void qvTrace(const char* method, std::string_view fmt, const A&... args) noexcept {
  if (kQVLoggerShowLogsTrace.load(std::memory_order_relaxed)) {
    QVLogLocal(kLogTrace, method, fmt, args...);
  }
  if (QuorvelProxyManager::sharedManager().isRemoteDebugging()) {
    addLogEvent(kLogTrace, method, fmt, args...);
  }
  if (QuorvelProxyManager::sharedManager().isRemoteDebugging()) {
    addLogEvent(kLogDebug, method, fmt, args...);
  }
}

}  // namespace quorvel
