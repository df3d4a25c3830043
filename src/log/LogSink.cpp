#include "log/LogSink.h"

#include <atomic>
#include <mutex>

#include "platform/posix/PosixServices.h"
#include "util/NoDestructor.h"

namespace quorvel::detail {
namespace {

struct Sink {
  std::mutex mutex;
  std::shared_ptr<const platform::Clock> clock = std::make_shared<platform::PosixClock>();
  std::shared_ptr<platform::SystemLog> systemLog = std::make_shared<platform::StderrSystemLog>();
};

Sink& sink() {
  static NoDestructor<Sink> instance;
  return instance.get();
}

// Read on every log call: an atomic rather than the sink's lock.
std::atomic<QuorvelProxyManager*> mirror{nullptr};

}  // namespace

void setLogSink(std::shared_ptr<const platform::Clock> clock,
                std::shared_ptr<platform::SystemLog> systemLog) noexcept {
  auto& s = sink();
  std::lock_guard lock(s.mutex);
  if (clock)
    s.clock = std::move(clock);
  if (systemLog)
    s.systemLog = std::move(systemLog);
}

std::shared_ptr<const platform::Clock> logClock() noexcept {
  auto& s = sink();
  std::lock_guard lock(s.mutex);
  return s.clock;
}

void writeLogSink(std::string_view line) noexcept {
  std::shared_ptr<platform::SystemLog> log;
  {
    auto& s = sink();
    std::lock_guard lock(s.mutex);
    log = s.systemLog;
  }
  log->write(line);
}

void setLogMirror(QuorvelProxyManager* next) noexcept {
  mirror.store(next, std::memory_order_release);
}

QuorvelProxyManager* logMirror() noexcept {
  return mirror.load(std::memory_order_acquire);
}

}  // namespace quorvel::detail
