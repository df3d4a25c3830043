// The process's console logger: plain functions and switches, callable by hosts too. They are
// the shared tracker's: its setIsDebug/setIsTrace set these switches, and its lines go to the
// installed platform's system log, as QVLogLocal's do. A tracker made on its own platform has
// a logger of its own that these switches do not reach.
//
// Nothing is printed until the debug switch is on; the trace switch adds an elapsed-time
// stamp and lets level-5 messages through. With the debug switch off a call costs one byte
// test: the message is not formatted.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include <quorvel/Format.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

// The levels of log lines; the library's own lines use the same numbers.
enum class QVLogLevel : int { error = 1, warning = 2, info = 3, debug = 4, trace = 5 };

// Master switch: nothing is printed while it is false.
extern std::atomic<bool> kQVLoggerShowLogs;
// Trace switch: timestamped line format, and level-5 messages at their call sites.
extern std::atomic<bool> kQVLoggerShowLogsTrace;

void QVSetShowDebugLogs(bool on) noexcept;
void QVSetShowDebugLogsTrace(bool on) noexcept;

// Origin of the elapsed time printed in trace mode; std::nullopt clears it.
void QVSetSessionStartDate(std::optional<std::chrono::system_clock::time_point> date) noexcept;
std::optional<std::chrono::system_clock::time_point> QVSessionStartDate() noexcept;

// "[ERROR]" "[WARN] " "[INFO] " "[DEBUG]" "[TRACE]", or "[-----]" for any other level.
std::string levelToString(int level);

// Elapsed session time as "HH:MM:SS:mmm", or "--:--:--:---" without a start or before it.
std::string timeToString();
// The same text for a given number of elapsed milliseconds.
std::string timeToStringForMilliseconds(std::int64_t ms);

namespace detail {
// Writes one already formatted message through the system log, in the current line format.
void emitLogLine(int level, const char* method, const std::string& message) noexcept;
}  // namespace detail

// Logs one message. `method` names the calling function ("-[Class selector]").
template <typename... A>
void QVLogLocal(int level, const char* method, std::string_view fmt, const A&... args) noexcept {
  if (!kQVLoggerShowLogs.load(std::memory_order_relaxed)) {
    return;
  }
  try {
    detail::emitLogLine(level, method, format(fmt, args...));
  } catch (...) {
    // Logging never fails visibly.
  }
}
template <typename... A>
void QVLogLocal(QVLogLevel level, const char* method, std::string_view fmt,
                const A&... args) noexcept {
  QVLogLocal(static_cast<int>(level), method, fmt, args...);
}

}  // namespace quorvel

#pragma GCC visibility pop
