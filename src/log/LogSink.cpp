#include "log/LogSink.h"

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

}  // namespace quorvel::detail
