#include <quorvel/Logger.h>
#include <quorvel/RemoteDebugging.h>

#include "log/Log.h"
#include "log/LogSink.h"
#include "platform/posix/PosixServices.h"
#include "util/NoDestructor.h"

#include <algorithm>

namespace quorvel {

std::atomic<bool> kQVLoggerShowLogs{false};
std::atomic<bool> kQVLoggerShowLogsTrace{false};

namespace {

// Microseconds since 1970 of the process's session start; kNoSessionStart while unset.
std::atomic<std::int64_t> gSessionStartMicros{LogSwitches::kNoSessionStart};

std::string twoDigitsAtLeast(std::int64_t value, bool padded) {
  return (padded ? "0" : "") + std::to_string(value);
}

std::int64_t toMicros(platform::TimePoint at) {
  return std::chrono::duration_cast<std::chrono::microseconds>(at.time_since_epoch()).count();
}

}  // namespace

// --- The switches -------------------------------------------------------------------------

std::shared_ptr<LogSwitches> LogSwitches::process() {
  // Never destroyed: the exit flush still logs after static destructors may have run.
  static NoDestructor<std::shared_ptr<LogSwitches>> switches(std::make_shared<LogSwitches>(
      kQVLoggerShowLogs, kQVLoggerShowLogsTrace, gSessionStartMicros));
  return switches.get();
}

std::optional<platform::TimePoint> LogSwitches::sessionStart() const noexcept {
  const std::int64_t micros = sessionStart_->load(std::memory_order_acquire);
  if (micros == kNoSessionStart)
    return std::nullopt;
  return platform::TimePoint(std::chrono::microseconds(micros));
}

void LogSwitches::setSessionStart(std::optional<platform::TimePoint> start) noexcept {
  sessionStart_->store(start ? toMicros(*start) : kNoSessionStart, std::memory_order_release);
}

void QVSetShowDebugLogs(bool on) noexcept {
  kQVLoggerShowLogs.store(on, std::memory_order_relaxed);
}

void QVSetShowDebugLogsTrace(bool on) noexcept {
  kQVLoggerShowLogsTrace.store(on, std::memory_order_relaxed);
}

void QVSetSessionStartDate(std::optional<std::chrono::system_clock::time_point> date) noexcept {
  LogSwitches::process()->setSessionStart(date);
}

std::optional<std::chrono::system_clock::time_point> QVSessionStartDate() noexcept {
  return LogSwitches::process()->sessionStart();
}

// --- Line formats -------------------------------------------------------------------------

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
  return detail::elapsedText(QVSessionStartDate(), detail::logClock()->now());
}

namespace detail {

std::string elapsedText(std::optional<platform::TimePoint> start, platform::TimePoint now) {
  if (!start) {
    return "--:--:--:---";
  }
  const double ms = std::chrono::duration<double, std::milli>(now - *start).count();
  if (!(ms >= -9.2e18 && ms <= 9.2e18)) {
    return "--:--:--:---";
  }
  return timeToStringForMilliseconds(static_cast<std::int64_t>(ms));
}

std::string consoleLine(bool tracing, const std::string& elapsed, int level, const char* method,
                        const std::string& message) {
  const char* where = method != nullptr ? method : "";
  if (tracing)
    return format("(%@) Quorvel: %@ %s %@", elapsed, levelToString(level), where, message);
  return format("%@ Quorvel: %s %@", levelToString(level), where, message);
}

std::string mirrorLine(const std::string& elapsed, int level, const char* method,
                       const std::string& message) {
  return format("(%@) %@ %s: %@", elapsed, levelToString(level), method != nullptr ? method : "",
                message);
}

// QVLogLocal's line: the process's switches and sink.
void emitLogLine(int level, const char* method, const std::string& message) noexcept {
  try {
    const bool tracing = kQVLoggerShowLogsTrace.load(std::memory_order_relaxed);
    writeLogSink(
        consoleLine(tracing, tracing ? timeToString() : std::string(), level, method, message));
  } catch (...) {
    // The logger never fails visibly.
  }
}

// The exported addLogEvent: the process's collection, dated as QVLogLocal's lines.
void addLogEventFormatted(int level, const char* method, const std::string& message) noexcept {
  try {
    const auto clock = logClock();
    QuorvelProxyManager::sharedManager().addEventWithString(
        mirrorLine(elapsedText(QVSessionStartDate(), clock->now()), level, method, message), clock);
  } catch (...) {
  }
}

}  // namespace detail

// --- A tracker's logger -------------------------------------------------------------------

std::shared_ptr<const Log> Log::silent() {
  return std::make_shared<const Log>(std::make_shared<LogSwitches>(),
                                     std::make_shared<platform::PosixClock>(),
                                     std::make_shared<platform::StderrSystemLog>(), nullptr);
}

void LogRedactions::add(const std::string& secret, std::string mask) {
  if (secret.empty())
    return;
  const std::lock_guard lock(mutex_);
  for (const auto& known : secrets_) {
    if (known.first == secret)
      return;
  }
  secrets_.emplace_back(secret, std::move(mask));
  // Longest first, so that a key that contains another is masked whole.
  std::sort(secrets_.begin(), secrets_.end(),
            [](const auto& a, const auto& b) { return a.first.size() > b.first.size(); });
}

std::string LogRedactions::apply(std::string line) const {
  const std::lock_guard lock(mutex_);
  for (const auto& [secret, mask] : secrets_) {
    for (auto at = line.find(secret); at != std::string::npos;
         at = line.find(secret, at + mask.size()))
      line.replace(at, secret.size(), mask);
  }
  return line;
}

std::string maskedSecret(std::string_view secret) {
  // At most four characters, and never more than half of a short secret.
  const std::size_t show = std::min<std::size_t>(4, secret.size() / 2);
  std::size_t cut = 0;
  for (std::size_t shown = 0; shown < show && cut < secret.size(); ++shown) {
    ++cut;
    while (cut < secret.size() && (static_cast<unsigned char>(secret[cut]) & 0xC0U) == 0x80U)
      ++cut;  // whole UTF-8 characters only
  }
  return std::string(secret.substr(0, cut)) + "... (" + std::to_string(secret.size()) +
         " characters)";
}

void Log::redact(const std::string& secret) const {
  redactions_->add(secret, maskedSecret(secret));
}

void Log::deliver(bool console, QuorvelProxyManager* mirror, int level, bool alsoAsDebug,
                  const std::string& rawMessage, const char* method) const noexcept {
  std::string message;
  try {
    message = redactions_->apply(rawMessage);
  } catch (...) {
    return;  // a line that cannot be masked is not written
  }
  if (console)
    print(level, method, message);
  if (mirror != nullptr) {
    record(*mirror, level, method, message);
    if (alsoAsDebug)
      record(*mirror, kLogDebug, method, message);
  }
}

void Log::print(int level, const char* method, const std::string& message) const noexcept {
  try {
    const bool tracing = switches_->trace();
    const std::string elapsed =
        tracing ? detail::elapsedText(switches_->sessionStart(), clock_->now()) : std::string();
    systemLog_->write(detail::consoleLine(tracing, elapsed, level, method, message));
  } catch (...) {
  }
}

void Log::record(QuorvelProxyManager& mirror, int level, const char* method,
                 const std::string& message) const noexcept {
  try {
    mirror.addEventWithString(
        detail::mirrorLine(detail::elapsedText(switches_->sessionStart(), clock_->now()), level,
                           method, message),
        clock_);
  } catch (...) {
  }
}

}  // namespace quorvel
