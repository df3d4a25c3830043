// The logger of one tracker: its switches, the clock and system log it writes with, and the
// remote-debugging collection it mirrors into. The composition root makes it and hands it to
// each collaborator through its constructor; nothing below the facade reads the process's
// logger (the exported switches and QVLogLocal's sink), which only the shared tracker uses.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <quorvel/Logger.h>
#include <quorvel/platform/Clock.h>
#include <quorvel/platform/SystemLog.h>

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

// The debug and trace switches and the session start that trace lines count from. A tracker
// made on its own platform has switches of its own, so that two trackers in one process do not
// switch each other's logs; the shared tracker's are the process's (kQVLoggerShowLogs, ...).
class LogSwitches {
 public:
  static constexpr std::int64_t kNoSessionStart = INT64_MIN;

  LogSwitches() = default;
  LogSwitches(std::atomic<bool>& debug, std::atomic<bool>& trace,
              std::atomic<std::int64_t>& sessionStartMicros) noexcept
      : debug_(&debug), trace_(&trace), sessionStart_(&sessionStartMicros) {}
  LogSwitches(const LogSwitches&) = delete;
  LogSwitches& operator=(const LogSwitches&) = delete;

  // The process's switches, which the exported functions of the logger set.
  static std::shared_ptr<LogSwitches> process();

  bool debug() const noexcept { return debug_->load(std::memory_order_relaxed); }
  void setDebug(bool on) noexcept { debug_->store(on, std::memory_order_relaxed); }
  bool trace() const noexcept { return trace_->load(std::memory_order_relaxed); }
  void setTrace(bool on) noexcept { trace_->store(on, std::memory_order_relaxed); }
  std::optional<platform::TimePoint> sessionStart() const noexcept;
  void setSessionStart(std::optional<platform::TimePoint> start) noexcept;

 private:
  std::atomic<bool> ownDebug_{false};
  std::atomic<bool> ownTrace_{false};
  std::atomic<std::int64_t> ownSessionStart_{kNoSessionStart};
  std::atomic<bool>* debug_ = &ownDebug_;
  std::atomic<bool>* trace_ = &ownTrace_;
  std::atomic<std::int64_t>* sessionStart_ = &ownSessionStart_;
};

// Secrets that never reach a log line: before a line is printed or collected for remote
// debugging, each secret in it is replaced by its masked form. A tracker registers its
// developer key here, so that no line (a URL, a payload) can give it away, whatever prints it.
class LogRedactions {
 public:
  void add(const std::string& secret, std::string mask);
  std::string apply(std::string line) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> secrets_;
};

// "DEMO... (17 characters)": enough to tell keys apart in a log, too little to use one.
std::string maskedSecret(std::string_view secret);

namespace detail {
// The console line of a message: "[LEVEL] Quorvel: method message", or with the elapsed
// session time first when tracing.
std::string consoleLine(bool tracing, const std::string& elapsed, int level, const char* method,
                        const std::string& message);
// The remote-debugging line of a message: "(elapsed) [LEVEL] method: message".
std::string mirrorLine(const std::string& elapsed, int level, const char* method,
                       const std::string& message);
// "HH:MM:SS:mmm" from `start` to `now`, or "--:--:--:---" without a start or before it.
std::string elapsedText(std::optional<platform::TimePoint> start, platform::TimePoint now);
}  // namespace detail

class Log {
 public:
  Log(std::shared_ptr<LogSwitches> switches, std::shared_ptr<const platform::Clock> clock,
      std::shared_ptr<platform::SystemLog> systemLog, QuorvelProxyManager* mirror) noexcept
      : switches_(std::move(switches)),
        clock_(std::move(clock)),
        systemLog_(std::move(systemLog)),
        mirror_(mirror) {}

  // A logger whose switches stay off and that mirrors nowhere, for a collaborator used without
  // a tracker (the emulator's cipher, the fuzzers).
  static std::shared_ptr<const Log> silent();

  LogSwitches& switches() const noexcept { return *switches_; }
  // Keeps `owner` (what owns the mirror) alive as long as this logger. Call it once, before the
  // logger is shared.
  void ownMirror(std::shared_ptr<const void> owner) const { mirrorOwner_ = std::move(owner); }
  // From now on `secret` shows only as its masked form in this logger's lines.
  void redact(const std::string& secret) const;

  // Logs at `level` and mirrors the line to the remote buffer when that collects.
  template <typename... A>
  void log(int level, const char* method, std::string_view fmt, const A&... args) const noexcept {
    emit(switches_->debug(), level, false, method, fmt, args...);
  }

  // A trace message: printed only with the trace switch on, and recorded twice in the remote
  // buffer (at trace and at debug level) while remote debugging is on.
  template <typename... A>
  void trace(const char* method, std::string_view fmt, const A&... args) const noexcept {
    emit(switches_->trace() && switches_->debug(), kLogTrace, true, method, fmt, args...);
  }

  // True when a debug message would reach the console or the remote buffer; call sites test
  // it before building expensive arguments.
  bool debugWanted() const noexcept { return switches_->debug() || collectingMirror() != nullptr; }
  // The same for a trace message.
  bool traceWanted() const noexcept { return switches_->trace() || collectingMirror() != nullptr; }

 private:
  QuorvelProxyManager* collectingMirror() const noexcept {
    return mirror_ != nullptr && mirror_->isRemoteDebugging() ? mirror_ : nullptr;
  }
  // Formats the message only when the console or the remote buffer takes it.
  template <typename... A>
  void emit(bool console, int level, bool alsoAsDebug, const char* method, std::string_view fmt,
            const A&... args) const noexcept {
    QuorvelProxyManager* const mirror = collectingMirror();
    if (!console && mirror == nullptr)
      return;
    try {
      deliver(console, mirror, level, alsoAsDebug, format(fmt, args...), method);
    } catch (...) {
      // Logging never fails visibly.
    }
  }
  void deliver(bool console, QuorvelProxyManager* mirror, int level, bool alsoAsDebug,
               const std::string& rawMessage, const char* method) const noexcept;
  void print(int level, const char* method, const std::string& message) const noexcept;
  void record(QuorvelProxyManager& mirror, int level, const char* method,
              const std::string& message) const noexcept;

  std::shared_ptr<LogSwitches> switches_;
  std::shared_ptr<const platform::Clock> clock_;
  std::shared_ptr<platform::SystemLog> systemLog_;
  QuorvelProxyManager* mirror_;  // outlives the logger; nullptr mirrors nowhere
  // A tracker's own collection lives as long as its logger: work queued by the tracker that
  // runs after it is gone still logs through it.
  mutable std::shared_ptr<const void> mirrorOwner_;
  std::shared_ptr<LogRedactions> redactions_ = std::make_shared<LogRedactions>();
};

}  // namespace quorvel
