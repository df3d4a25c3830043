#include <quorvel/Logger.h>

#include <climits>

#include "log/LogSink.h"

namespace quorvel {

std::atomic<bool> kQVLoggerShowLogs{false};
std::atomic<bool> kQVLoggerShowLogsTrace{false};

namespace {

// Microseconds since 1970 of the session start; LLONG_MIN while unset.
std::atomic<std::int64_t> gSessionStartMicros{LLONG_MIN};

std::string twoDigitsAtLeast(std::int64_t value, bool padded) {
  return (padded ? "0" : "") + std::to_string(value);
}

}  // namespace

void QVSetShowDebugLogs(bool on) noexcept {
  kQVLoggerShowLogs.store(on, std::memory_order_relaxed);
}

void QVSetShowDebugLogsTrace(bool on) noexcept {
  kQVLoggerShowLogsTrace.store(on, std::memory_order_relaxed);
}

void QVSetSessionStartDate(std::optional<std::chrono::system_clock::time_point> date) noexcept {
  const std::int64_t micros =
      date ? std::chrono::duration_cast<std::chrono::microseconds>(date->time_since_epoch()).count()
           : LLONG_MIN;
  gSessionStartMicros.store(micros, std::memory_order_release);
}

std::optional<std::chrono::system_clock::time_point> QVSessionStartDate() noexcept {
  const std::int64_t micros = gSessionStartMicros.load(std::memory_order_acquire);
  if (micros == LLONG_MIN) {
    return std::nullopt;
  }
  return std::chrono::system_clock::time_point(std::chrono::microseconds(micros));
}

std::string levelToString(int level) {
  switch (level) {
    case 1:
      return "[ERROR]";
    case 2:
      return "[WARN] ";
    case 3:
      return "[INFO] ";
    case 4:
      return "[DEBUG]";
    case 5:
      return "[TRACE]";
    default:
      return "[-----]";
  }
}

std::string timeToStringForMilliseconds(std::int64_t ms) {
  if (ms < 0) {
    return "--:--:--:---";
  }
  const std::int64_t inHour = ms % 3600000;
  const std::int64_t inMinute = ms % 60000;
  const std::int64_t millis = ms % 1000;
  std::string out = twoDigitsAtLeast(ms / 3600000, ms < 36000000);
  out += ":" + twoDigitsAtLeast(inHour / 60000, inHour < 600000);
  out += ":" + twoDigitsAtLeast(inMinute / 1000, inMinute < 10000);
  out += ":";
  if (millis < 100)
    out += "0";
  if (millis < 10)
    out += "0";
  out += std::to_string(millis);
  return out;
}

std::string timeToString() {
  const auto start = QVSessionStartDate();
  if (!start) {
    return "--:--:--:---";
  }
  const auto now = detail::logClock()->now();
  const double seconds = std::chrono::duration<double>(now - *start).count();
  const double ms = seconds * 1000.0;
  if (!(ms >= -9.2e18 && ms <= 9.2e18)) {
    return "--:--:--:---";
  }
  return timeToStringForMilliseconds(static_cast<std::int64_t>(ms));
}

namespace detail {

void emitLogLine(int level, const char* method, const std::string& message) noexcept {
  try {
    const char* where = method != nullptr ? method : "";
    std::string line;
    if (kQVLoggerShowLogsTrace.load(std::memory_order_relaxed)) {
      line = format("(%@) Quorvel: %@ %s %@", timeToString(), levelToString(level), where, message);
    } else {
      line = format("%@ Quorvel: %s %@", levelToString(level), where, message);
    }
    writeLogSink(line);
  } catch (...) {
    // The logger never fails visibly.
  }
}

}  // namespace detail
}  // namespace quorvel
