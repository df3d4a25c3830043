// The logging convention of every call site: the console line, mirrored to the
// remote-debugging buffer while remote debugging is on.
#pragma once

#include <quorvel/Logger.h>
#include <quorvel/RemoteDebugging.h>

#include "log/LogSink.h"
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

namespace detail {
// Appends one formatted line to `mirror`, as the exported addLogEvent does.
void mirrorLogLine(QuorvelProxyManager& mirror, int level, const char* method,
                   const std::string& message) noexcept;
}  // namespace detail

// The remote-debugging collection the logger mirrors into while it collects, else nullptr.
inline QuorvelProxyManager* collectingMirror() noexcept {
  QuorvelProxyManager* const mirror = detail::logMirror();
  return mirror != nullptr && mirror->isRemoteDebugging() ? mirror : nullptr;
}

template <typename... A>
void mirrorLogEvent(QuorvelProxyManager& mirror, int level, const char* method,
                    std::string_view fmt, const A&... args) noexcept {
  try {
    detail::mirrorLogLine(mirror, level, method, format(fmt, args...));
  } catch (...) {
  }
}

// Logs at `level` and mirrors the line to the remote buffer when that collects.
template <typename... A>
void qvLog(int level, const char* method, std::string_view fmt, const A&... args) noexcept {
  QVLogLocal(level, method, fmt, args...);
  if (QuorvelProxyManager* const mirror = collectingMirror())
    mirrorLogEvent(*mirror, level, method, fmt, args...);
}

// True when a debug message would reach the console or the remote buffer; call sites test
// it before building expensive arguments.
inline bool qvDebugWanted() noexcept {
  return kQVLoggerShowLogs.load(std::memory_order_relaxed) || collectingMirror() != nullptr;
}

// True when a trace message would reach the console or the remote buffer; call sites test
// it before building expensive arguments.
inline bool qvTraceWanted() noexcept {
  return kQVLoggerShowLogsTrace.load(std::memory_order_relaxed) || collectingMirror() != nullptr;
}

// A trace message: printed only with the trace switch on, and recorded twice in the remote
// buffer (at trace and at debug level) while remote debugging is on.
template <typename... A>
void qvTrace(const char* method, std::string_view fmt, const A&... args) noexcept {
  if (kQVLoggerShowLogsTrace.load(std::memory_order_relaxed)) {
    QVLogLocal(kLogTrace, method, fmt, args...);
  }
  if (QuorvelProxyManager* const mirror = collectingMirror()) {
    mirrorLogEvent(*mirror, kLogTrace, method, fmt, args...);
    mirrorLogEvent(*mirror, kLogDebug, method, fmt, args...);
  }
}

}  // namespace quorvel
