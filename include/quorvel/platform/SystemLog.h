// The system log: one line per call.
#pragma once

#include <string_view>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

class SystemLog {
 public:
  SystemLog() = default;
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;
  virtual ~SystemLog() = default;

  // Writes one line (the sink adds its own prefix and the newline). Any thread. Never throws;
  // not noexcept only so that a thread ended inside a host's log function unwinds through it.
  virtual void write(std::string_view line) = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
